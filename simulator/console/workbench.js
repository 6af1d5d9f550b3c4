// The page: takes the stream of events, shows the devices and posts what the user asks for. Texts from devices are
// inserted as text only.
import {drawCharts} from './charts.js';
import {devices, parse, stateOf, take} from './devices.js';
import {closeTerminal, openTerminal, takeTerminal, terminalOf} from './terminal.js';

const TRANSCRIPT_MAX = 500;
const COMMANDS = ['reboot', 'backup', 'upgrade', 'reset', 'log', 'ping', 'traceroute', 'tcpdump', 'provision',
  'auto_provision', 'sync-config', 'snapshot', 'dev-info', 'dev-status', 'port-info', 'port-status'];

const $ = id => document.getElementById(id);
let chosen = '';       // serial number
let drawn = null;      // device and its revision as shown
let records = [];      // requests, newest first
let tunnels = [];      // as NM sees them
let wanted = {};       // "remote-web SN": what to do when that tunnel stands
let sessions = 0;      // given to commands
let due = false;       // a drawing is planned

function element(tag, attributes, ...children) {
  const node = document.createElement(tag);
  for (const [key, value] of Object.entries(attributes))
    if (value !== undefined && value !== false)
      node.setAttribute(key, value);
  node.append(...children);
  return node;
}

const badge = (text, kind = text) => element('span', {class: 'badge ' + kind.replaceAll(' ', '-')}, text);

async function post(path, body, serial = chosen) {
  try {
    const answer = await fetch(`${path}?device=${encodeURIComponent(serial)}`, {method: 'POST', body});
    return answer.ok ? '' : await answer.text() || 'refused';
  } catch {
    return 'the workbench is not reachable';
  }
}

async function run(line, what) {
  const serial = chosen, wrong = await post('/run', line);
  $('said').textContent = wrong ? `${what}: ${wrong}` : `${what}: waits for ${serial}'s next heartbeat`;
  return !wrong;
}

// --- devices

function drawDevices(now) {
  const list = [...devices.values()];
  $('nobody').hidden = list.length > 0;
  while ($('devices').children.length > list.length)
    $('devices').lastChild.remove();
  list.forEach((device, index) => {
    if (!$('devices').children[index]) {
      const button = element('button', {type: 'button'});
      button.addEventListener('click', () => choose(button.dataset.serial));
      $('devices').append(element('li', {}, button));
    }
    const button = $('devices').children[index].firstChild, state = stateOf(device, now);
    const word = `last word ${device.word || 'none'}, ${Math.max(0, Math.round((now - device.heard) / 1000))} s ago`;
    button.dataset.serial = device.serial;
    button.setAttribute('aria-current', device.serial === chosen);
    if (button.dataset.shown !== state + word) {
      button.dataset.shown = state + word;
      button.dataset.state = state;
      button.replaceChildren(device.serial + ' ', badge(state), element('small', {}, word));
    }
  });
}

function drawTimeline(device) {
  $('nothing').hidden = device.timeline.length > 0;
  $('timeline').replaceChildren(...device.timeline.map(entry => element('li', {},
    element('time', {}, entry.time), badge(entry.kind), ...(entry.wrong ? [badge('wrong'), ' '] : []), entry.text)));
}

function drawDevice(now) {
  const device = devices.get(chosen);
  $('device').hidden = !device;
  if (!device)
    return;
  const state = stateOf(device, now);
  $('serial').textContent = device.serial;
  $('state').textContent = state;
  $('state').className = 'badge ' + state.replaceAll(' ', '-');
  $('word').textContent = device.refused || (device.word ? 'last word: ' + device.word : '');
  if (drawn?.device === device && drawn.revision === device.revision)
    return;
  drawn = {device, revision: device.revision};
  $('identity').replaceChildren(...Object.entries(device.identity ?? {}).map(([key, value]) =>
    element('div', {}, element('dt', {}, key), element('dd', {}, String(value) || '-'))));
  drawTimeline(device);
  drawCharts(device);
}

function draw() {
  due = false;
  const now = Date.now();
  if (!devices.has(chosen) && devices.size > 0)
    chosen = devices.keys().next().value;
  drawDevices(now);
  drawDevice(now);
}

function drawSoon() {
  if (!due) {
    due = true;
    setTimeout(draw, 100);
  }
}

function choose(serial) {
  chosen = serial;
  drawn = null;
  $('said').textContent = '';
  draw();
  drawTunnels();
  drawTranscript();
}

// --- transcript

const isShown = event => (!$('only-chosen').checked || event.serial === chosen) &&
  (!$('only-wrong').checked || event.wrong) &&
  ($('heartbeats').checked || event.wrong || !['udp', 'heartbeat'].includes(event.name));

function pretty(text) {
  const value = parse(text);
  return value === null ? text : JSON.stringify(value, null, 2);
}

function messageOf(event) {
  const parts = event.wrong ? [element('pre', {class: 'wrong'}, 'WRONG: ' + event.wrong.replaceAll('; ', '\n       '))] : [];
  if (event.line)
    parts.push(element('pre', {}, [event.line, ...event.headers].join('\n')));
  return [...parts, element('pre', {}, pretty(event.body)), element('pre', {}, 'answer: ' + pretty(event.answer))];
}

function rowOf(event) {
  const summary = element('summary', {}, element('time', {}, event.time),
    `${event.serial || '?'} ${event.name === 'udp' ? 'heartbeat over UDP' : event.name} `,
    ...(event.wrong ? [badge('wrong'), ' '] : []), ...(event.onPurpose ? [badge('on purpose')] : []));
  const details = element('details', {}, summary);
  details.addEventListener('toggle', () => details.children.length > 1 || details.append(...messageOf(event)));
  return element('li', {class: event.wrong ? 'wrong' : undefined}, details);
}

function drawTranscript() {
  $('transcript').replaceChildren(...records.filter(isShown).map(rowOf));
}

function record(event) {
  records.unshift(event);
  records.length = Math.min(records.length, TRANSCRIPT_MAX);
  if (!isShown(event))
    return;
  $('transcript').prepend(rowOf(event));
  while ($('transcript').children.length > TRANSCRIPT_MAX)
    $('transcript').lastChild.remove();
}

// --- tunnels

const tunnelOf = type => tunnels.find(tunnel => tunnel.serial === chosen && tunnel.type === type);

function drawTunnels() {
  const web = tunnelOf('remote-web'), telnet = tunnelOf('remote-telnet'), parts = [];
  const asked = ['remote-web', 'remote-telnet'].filter(type => wanted[`${type} ${chosen}`]);
  $('web-end').hidden = !web?.stands;
  $('telnet-end').hidden = !telnet?.stands;
  $('terminal').hidden = $('leave').hidden = !telnet?.stands || terminalOf() !== chosen;
  if (asked.length)
    parts.push(`${asked.join(' and ')}: waits for the agent. `);
  if (web?.stands)
    parts.push(element('a', {id: 'web-link', href: `http://127.0.0.1:${web.port}/`, target: '_blank',
      rel: 'noopener noreferrer'}, "the device's page"), ' through the web tunnel. ');
  for (const tunnel of [web, telnet])
    if (tunnel?.problem)
      parts.push(badge('wrong'), ` ${tunnel.type}: ${tunnel.problem} `);
  $('tunnels').replaceChildren(...parts);
}

function takeTunnels(list) {
  tunnels = list;
  for (const tunnel of tunnels) {
    const key = `${tunnel.type} ${tunnel.serial}`;
    if (tunnel.stands && wanted[key]) {
      wanted[key](tunnel);
      delete wanted[key];
    }
  }
  drawTunnels();
}

// Opens the window at once, because browsers allow that only in answer to a click, and fills it when the tunnel stands.
async function openWeb() {
  const serial = chosen, page = window.open('about:blank');
  const show = tunnel => {
    if (page) {
      page.opener = null;
      page.location = `http://127.0.0.1:${tunnel.port}/`;
    }
  };
  if (tunnelOf('remote-web')?.stands)
    return show(tunnelOf('remote-web'));
  if (page)
    page.document.body.textContent = 'Waiting for the tunnel to ' + serial + ' ...';
  if (await run('web start', 'remote-web'))
    wanted['remote-web ' + serial] = show;
  else
    page?.close();
  drawTunnels();
}

async function showTerminal(tunnel) {
  const wrong = await post('/terminal', '', tunnel.serial);
  if (wrong || tunnel.serial !== chosen) {
    $('said').textContent = wrong ? 'remote-telnet: ' + wrong : '';
    return;
  }
  $('terminal').hidden = false; // it measures its place when it is opened
  openTerminal(tunnel.serial, $('terminal'), () => $('telnet-end').focus());
  drawTunnels();
}

async function openTelnet() {
  const serial = chosen;
  if (tunnelOf('remote-telnet')?.stands)
    return showTerminal(tunnelOf('remote-telnet'));
  if (await run('telnet start', 'remote-telnet'))
    wanted['remote-telnet ' + serial] = showTerminal;
  drawTunnels();
}

// --- the stream

function begin() {
  devices.clear();
  records = [];
  drawn = null;
  $('transcript').replaceChildren();
}

const takers = {
  hello: begin,
  request: event => {
    take(event);
    record(event);
    drawSoon();
  },
  tunnels: event => takeTunnels(event.value),
  misbehaviour: event => {
    for (const button of document.querySelectorAll('[data-misbehave]'))
      button.setAttribute('aria-checked', button.dataset.misbehave === event.value);
  },
  terminal: event => {
    if (!takeTerminal(event)) {
      closeTerminal();
      drawTunnels();
    }
  },
};

function connect() {
  const stream = new EventSource('/events');
  const show = (text, kind) => {
    $('link').textContent = text;
    $('link').className = 'badge ' + kind;
  };
  stream.onopen = () => show('live', 'live');
  stream.onerror = () => show('NM is not reachable', 'lost');
  stream.onmessage = message => {
    const event = JSON.parse(message.data);
    takers[event.kind]?.(event);
  };
}

// --- what the user does

function onForm(id, work) {
  $(id).addEventListener('submit', event => {
    event.preventDefault();
    work(new FormData(event.target));
  });
}

for (const type of COMMANDS) {
  const button = element('button', {type: 'button', 'data-command': type}, type);
  button.addEventListener('click', () => run(`forward ${type} wb-${++sessions}`, type));
  $('commands').append(button);
}
const again = element('button', {type: 'button', title: 'answers the next heartbeat with "rec"'}, 'join again');
again.addEventListener('click', () => run('rec', 'join again'));
$('commands').append(again);

for (const button of document.querySelectorAll('[data-misbehave]'))
  button.addEventListener('click', async () => {
    const word = button.getAttribute('aria-checked') === 'true' ? 'none' : button.dataset.misbehave;
    const wrong = await post('/run', 'misbehave ' + word);
    $('said').textContent = wrong || (word === 'none' ? 'NM answers as agreed' : 'NM misbehaves: ' + word);
  });

onForm('free', form => {
  const text = form.get('text').replaceAll('\n', ' ').trim();
  if (typeof parse(text)?.type === 'string')
    run('send ' + text, parse(text).type);
  else
    $('said').textContent = 'This is no command: a command is a JSON object with a type.';
});
onForm('trigger', form => run('trigger ' + form.get('seconds'), 'heartbeat period'));
onForm('period', form => run('period ' + form.get('seconds'), 'run status period'));
onForm('strategy', form => run(`strategy ${form.get('action')} ${form.get('mode')} ${form.get('period')} ` +
  form.get('limit'), 'service reports'));
$('web').addEventListener('click', openWeb);
$('telnet').addEventListener('click', openTelnet);
$('web-end').addEventListener('click', () => run('web stop', 'remote-web stop'));
$('telnet-end').addEventListener('click', () => run('telnet stop', 'remote-telnet stop'));
for (const id of ['only-chosen', 'heartbeats', 'only-wrong'])
  $(id).addEventListener('change', drawTranscript);
matchMedia('(prefers-color-scheme: dark)').addEventListener('change', () => {
  drawn = null;
  draw();
});
setInterval(draw, 1000);
connect();
