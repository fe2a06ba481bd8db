// The agent console: lists the service's sessions, shows the live screen of the
// selected one and sends the agent's events. It talks to the service over the
// console socket (/console/ws: session lists, frames, event relay) and the REST
// API (create, activate, end, full-device mode).
'use strict';

const $ = (id) => document.getElementById(id);

const consoleState = {
  socket: null,
  sessions: [],
  selected: location.hash.slice(1) || null,
  pictureUrl: null,
  probeCounter: 0,
  gestureCounter: 0,
};

// --- the service ---------------------------------------------------------

function connect() {
  const scheme = location.protocol === 'https:' ? 'wss' : 'ws';
  const socket = new WebSocket(`${scheme}://${location.host}/console/ws`);
  socket.binaryType = 'arraybuffer';
  socket.onopen = () => {
    setLink(true);
    if (consoleState.selected) send({ type: 'watch', session: consoleState.selected });
  };
  socket.onclose = () => {
    setLink(false);
    consoleState.socket = null;
    setTimeout(connect, 1000);
  };
  socket.onmessage = (message) => {
    if (typeof message.data === 'string') onJson(JSON.parse(message.data));
    else onFrame(message.data);
  };
  consoleState.socket = socket;
}

function send(message) {
  const socket = consoleState.socket;
  if (socket && socket.readyState === WebSocket.OPEN) socket.send(JSON.stringify(message));
}

async function api(method, path, body) {
  const response = await fetch(path, {
    method,
    headers: { 'Content-Type': 'application/json; charset=utf-8' },
    body: body === undefined ? undefined : JSON.stringify(body),
  });
  const text = await response.text();
  const value = text ? JSON.parse(text) : null;
  if (!response.ok) throw new Error((value && value.message) || `HTTP ${response.status}`);
  return value;
}

function onJson(message) {
  switch (message.type) {
    case 'sessions':
      consoleState.sessions = message.sessions;
      renderSessions();
      break;
    case 'alive': {
      const data = message.data || {};
      if (typeof data.sent_at === 'number')
        $('probe-result').textContent = `alive #${data.n} after ${Date.now() - data.sent_at} ms`;
      else $('probe-result').textContent = 'alive';
      break;
    }
    case 'sent':
      $('last-event').textContent = `${message.event} → ${message.delivered} socket${message.delivered === 1 ? '' : 's'}`;
      if (message.delivered === 0) status(`No stream socket took the ${message.event} event`, true);
      break;
    case 'error':
      status(message.message, true);
      break;
  }
}

// A binary message: 4-byte big-endian length, JSON figures, then the JPEG.
function onFrame(buffer) {
  const length = new DataView(buffer).getUint32(0);
  const figures = JSON.parse(new TextDecoder().decode(new Uint8Array(buffer, 4, length)));
  if (figures.session !== consoleState.selected) return;
  const url = URL.createObjectURL(new Blob([new Uint8Array(buffer, 4 + length)], { type: 'image/jpeg' }));
  const img = $('screen');
  const previous = consoleState.pictureUrl;
  consoleState.pictureUrl = url;
  img.onload = () => {
    if (previous) URL.revokeObjectURL(previous);
    $('dimensions').textContent = `${img.naturalWidth} × ${img.naturalHeight}`;
    $('delay').textContent = `${Math.max(0, Date.now() - figures.received_at_ms)} ms`;
  };
  img.src = url;
  img.dataset.frameId = figures.last_frame_id;
  img.hidden = false;
  $('waiting').hidden = true;
  showFigures(figures);
}

// --- rendering -----------------------------------------------------------

function setLink(up) {
  $('link').textContent = up ? 'connected' : 'disconnected';
  $('link').className = `link ${up ? 'up' : 'down'}`;
}

function status(text, isError) {
  $('status').textContent = text;
  $('status').className = isError ? 'error' : '';
}

function renderSessions() {
  const body = $('sessions');
  body.replaceChildren();
  for (const session of consoleState.sessions) {
    const row = document.createElement('tr');
    row.dataset.id = session.id;
    if (session.id === consoleState.selected) row.className = 'selected';
    const stats = session.stats || {};
    for (const text of [session.code, session.state, session.full_device ? 'on' : 'off',
      stats.frames ?? 0, (stats.fps ?? 0).toFixed(1)]) {
      const cell = document.createElement('td');
      cell.textContent = text;
      row.append(cell);
    }
    row.onclick = () => select(session.id);
    body.append(row);
  }
  $('no-sessions').hidden = consoleState.sessions.length > 0;
  renderDetail();
}

function selectedSession() {
  return consoleState.sessions.find((s) => s.id === consoleState.selected) || null;
}

function renderDetail() {
  const session = selectedSession();
  $('detail').hidden = !session;
  if (!session) return;
  $('session-code').textContent = session.code;
  $('session-id').textContent = session.id;
  $('session-state').textContent = session.state;
  $('session-state').className = `state ${session.state}`;
  $('session-full-device').textContent = session.full_device ? 'full device on' : 'full device off';
  $('sockets').textContent = `control ${session.control_sockets}, stream ${session.stream_sockets}`;
  showFigures(session.stats || {});
}

function showFigures(f) {
  const number = (v, digits = 1) => (typeof v === 'number' ? v.toFixed(digits) : '–');
  $('fps').textContent = number(f.fps);
  $('bps').textContent = typeof f.bytes_per_second === 'number' ? `${(f.bytes_per_second / 1024).toFixed(1)} KiB/s` : '–';
  $('quality').textContent = typeof f.last_quality === 'number' ? `${f.last_quality}` : '–';
  if (typeof f.lag === 'number') $('lag').textContent = `${f.lag}`;
  $('frames').textContent = f.frames ?? '–';
  $('missing').textContent = f.missing_ids ?? '–';
  $('size').textContent = typeof f.last_frame_bytes === 'number' ? `${(f.last_frame_bytes / 1024).toFixed(1)} KiB` : '–';
}

function select(id) {
  if (id !== consoleState.selected) {
    consoleState.selected = id;
    history.replaceState(null, '', `#${id}`);
    $('screen').hidden = true;
    $('waiting').hidden = false;
    for (const cell of ['fps', 'bps', 'quality', 'lag', 'frames', 'missing', 'size', 'dimensions', 'delay', 'probe-result', 'last-event'])
      $(cell).textContent = '–';
  }
  send({ type: 'watch', session: id });
  renderSessions();
}

// --- the agent's actions -------------------------------------------------

async function act(label, fn) {
  try {
    await fn();
    status(`${label}: done`);
  } catch (e) {
    status(`${label}: ${e.message}`, true);
  }
}

function updateSession(body) {
  return api('PUT', `/api/1/sessions/${consoleState.selected}`, body);
}

function agentEvent(event, data) {
  send({ type: 'event', session: consoleState.selected, event, data });
}

$('new-session').onclick = () => act('New session', async () => {
  const session = await api('POST', '/api/1/sessions', {});
  select(session.id);
});
$('activate').onclick = () => act('Activate', () => updateSession({ state: 'active' }));
$('end').onclick = () => act('End session', () => updateSession({ state: 'ended' }));
$('full-on').onclick = () => act('Full device on', () => updateSession({ full_device: true }));
$('full-off').onclick = () => act('Full device off', () => updateSession({ full_device: false }));
$('drop-stream').onclick = () => act('Drop stream', () => api('POST', `/console/api/sessions/${consoleState.selected}/drop-stream`));
$('sync').onclick = () => { agentEvent('sync', {}); status('Sync sent'); };
$('probe').onclick = () => {
  consoleState.probeCounter += 1;
  agentEvent('probe', { n: consoleState.probeCounter, sent_at: Date.now() });
  $('probe-result').textContent = `probe #${consoleState.probeCounter} sent`;
};

// yyyy-MM-dd'T'HH:mm:ss.SSSZ in local time, e.g. 2024-05-01T13:45:07.123+0200.
function touchTimestamp(date = new Date()) {
  const pad = (n, w = 2) => String(Math.abs(n)).padStart(w, '0');
  const offset = -date.getTimezoneOffset();
  return `${date.getFullYear()}-${pad(date.getMonth() + 1)}-${pad(date.getDate())}` +
    `T${pad(date.getHours())}:${pad(date.getMinutes())}:${pad(date.getSeconds())}.${pad(date.getMilliseconds(), 3)}` +
    `${offset < 0 ? '-' : '+'}${pad(Math.trunc(offset / 60))}${pad(offset % 60)}`;
}

// A pointer position on the picture in the frame's own pixels.
function framePoint(e) {
  const img = $('screen');
  const box = img.getBoundingClientRect();
  const x = ((e.clientX - box.left) * img.naturalWidth) / box.width;
  const y = ((e.clientY - box.top) * img.naturalHeight) / box.height;
  return { x: Math.round(Math.min(Math.max(x, 0), img.naturalWidth)), y: Math.round(Math.min(Math.max(y, 0), img.naturalHeight)) };
}

let gesture = null;
function pointerEvent(e, state) {
  const mode = $('mode-laser').checked ? 'laser' : 'touch';
  const { x, y } = framePoint(e);
  if (mode === 'laser') agentEvent('laser', { type: 'Laser', id: gesture.id, state, x, y });
  else agentEvent('touch', { type: 'Touch', id: gesture.id, state, timestamp: touchTimestamp(), x, y });
}
const screen = $('screen');
screen.addEventListener('pointerdown', (e) => {
  consoleState.gestureCounter += 1;
  gesture = { id: `agent-${consoleState.gestureCounter}`, lastMove: 0 };
  screen.setPointerCapture(e.pointerId);
  pointerEvent(e, 'touchstart');
});
screen.addEventListener('pointermove', (e) => {
  if (!gesture || e.timeStamp - gesture.lastMove < 30) return;
  gesture.lastMove = e.timeStamp;
  pointerEvent(e, 'touchmove');
});
const endGesture = (e) => {
  if (!gesture) return;
  pointerEvent(e, 'touchend');
  gesture = null;
};
screen.addEventListener('pointerup', endGesture);
screen.addEventListener('pointercancel', endGesture);

connect();
