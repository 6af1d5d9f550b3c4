// The terminal of the chosen device: shows what its session sends and posts what is typed, in order.

let shown = null; // {serial, terminal, decoder, keys, busy}

async function sendKeys(session) {
  if (session.busy)
    return;
  session.busy = true;
  while (session.keys) {
    const keys = session.keys;
    session.keys = '';
    await fetch('/keys?device=' + encodeURIComponent(session.serial), {method: 'POST', body: keys}).catch(() => {});
  }
  session.busy = false;
}

// leave: called when the user leaves by Shift+Escape.
export function openTerminal(serial, place, leave) {
  closeTerminal();
  const terminal = new Terminal({cols: 80, rows: 24, screenReaderMode: true, cursorBlink: false});
  const session = {serial, terminal, decoder: new TextDecoder(), keys: '', busy: false};
  const typed = text => {
    session.keys += text;
    sendKeys(session);
  };
  place.replaceChildren();
  terminal.open(place);
  terminal.onData ? terminal.onData(typed) : terminal.on('data', typed); // since release 4: onData
  terminal.attachCustomKeyEventHandler(event => {
    if (event.key !== 'Escape' || !event.shiftKey)
      return true;
    leave();
    return false;
  });
  terminal.focus();
  shown = session;
}

export function closeTerminal() {
  shown?.terminal.dispose ? shown.terminal.dispose() : shown?.terminal.destroy();
  shown = null;
}

export const terminalOf = () => shown?.serial ?? '';

// A "terminal" event. Returns false when the session has ended.
export function takeTerminal(event) {
  if (!shown || event.serial !== shown.serial)
    return true;
  const bytes = Uint8Array.from(atob(event.bytes), char => char.charCodeAt(0));
  shown.terminal.write(shown.decoder.decode(bytes, {stream: true}));
  return event.open;
}
