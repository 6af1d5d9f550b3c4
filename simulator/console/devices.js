// What is known of each device, worked out from the requests that NM has received. No view.

const HEARTBEAT_S = 6; // until NM has set another period
const POINTS_MAX = 240;
const ENTRIES_MAX = 300;
const RESULTS = ['cfgResult', 'upgradeResult', 'backupResult'];

export const devices = new Map(); // by serial number, in order of joining

export function parse(text) {
  try {
    return JSON.parse(text);
  } catch {
    return null;
  }
}

function deviceOf(serial) {
  if (!devices.has(serial))
    devices.set(serial, {serial, identity: null, heard: 0, served: true, joined: false, refused: '', word: '',
      heartbeat: HEARTBEAT_S, usage: [], rates: [], timeline: [], last: null, revision: 0});
  return devices.get(serial);
}

// "online", "joining", "refused", "not served" (NM misbehaved towards it), "silent" (nothing for three heartbeats).
export function stateOf(device, now) {
  if (now - device.heard > (device.heartbeat * 3 + 2) * 1000)
    return 'silent';
  if (!device.served)
    return 'not served';
  if (device.refused)
    return 'refused';
  return device.joined ? 'online' : 'joining';
}

function note(device, event, kind, text) {
  device.timeline.unshift({time: event.time, kind, text, wrong: event.wrong});
  device.timeline.length = Math.min(device.timeline.length, ENTRIES_MAX);
}

function keep(points, point) {
  points.push(point);
  if (points.length > POINTS_MAX)
    points.shift();
}

function takeActivation(device, event, body, answer) {
  device.identity = body;
  device.joined = false;
  device.refused = answer && ![200, 201].includes(answer.status) ? answer.error || 'status ' + answer.status : '';
  if (event.onPurpose)
    note(device, event, 'unanswered', 'activation');
  else
    note(device, event, device.refused ? 'refused' : 'joined', device.refused || 'activation');
}

function takeHandshake(device, event, body, answer) {
  for (const command of answer?.result?.payload ?? []) {
    note(device, event, 'command', JSON.stringify(command));
    if (command.type === 'trigger' && command.param?.period > 0)
      device.heartbeat = command.param.period;
  }
}

function ratesBetween(before, now, seconds) {
  const rates = {};
  for (const item of now) {
    const old = before.find(other => other.ifname === item.ifname);
    for (const [key, way] of [['rxbytes', 'in'], ['txbytes', 'out']])
      if (old && old[key] !== undefined && seconds > 0)
        rates[item.ifname + ' ' + way] = Math.max(0, (item[key] - old[key]) * 8 / 1000 / seconds);
  }
  return rates;
}

function takeRunStatus(device, event, body) {
  const basic = body?.basic ?? {}, board = basic.board?.[0] ?? {}, interfaces = basic.interface ?? [];
  const at = event.time.slice(0, 8);
  keep(device.usage, {at, processor: parseFloat(board.cpuUsage), memory: parseFloat(board.memoryUsage),
    disk: parseFloat(board.diskUsage)});
  if (device.last)
    keep(device.rates, {at, ...ratesBetween(device.last.interfaces, interfaces, (event.ms - device.last.ms) / 1000)});
  device.last = {ms: event.ms, interfaces};
}

function takeHeartbeat(device, event, body, answer) {
  device.word = event.name === 'udp' ? event.answer : String(answer?.result ?? event.answer);
  device.joined ||= !event.onPurpose;
}

const takers = {
  active: takeActivation,
  handshake: takeHandshake,
  runstatus: takeRunStatus,
  udp: takeHeartbeat,
  heartbeat: takeHeartbeat,
};

// One request; returns its device, or null when it names none.
export function take(event) {
  if (!event.serial)
    return null;
  const device = deviceOf(event.serial), body = parse(event.body), taker = takers[event.name];
  device.heard = event.ms;
  device.served = !event.onPurpose;
  device.revision++;
  if (taker)
    taker(device, event, body, parse(event.answer));
  else if (event.name === 'working/services')
    note(device, event, 'service', JSON.stringify(body?.services ?? event.body));
  else
    note(device, event, RESULTS.includes(event.name) ? 'result' : event.name, body ? JSON.stringify(body) : event.body);
  return device;
}
