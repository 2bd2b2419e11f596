// The panel: renders what the simulator pushes on /events and sends the
// same steering requests as `hmisvc sim`, carrying the token.
'use strict';

const $ = (id) => document.getElementById(id);
const NETS = ['Ethernet', 'Wi-Fi', '4G'];
const MAX_CALLS = 100;

let token = sessionStorage.getItem('hmisvc-token') || '';
let state = null;          // the last state document
let clockOffset = 0;
let lastBeeps = null;
let treePending = false;   // a state arrived while a value was being edited

function takeTokenFromUrl() {
  const m = location.hash.match(/token=([0-9a-f]+)/);
  if (m) {
    token = m[1];
    sessionStorage.setItem('hmisvc-token', token);
    history.replaceState(null, '', location.pathname);
  }
}

function showAccess() {
  $('access').textContent = token ? 'control' : 'read-only';
  $('access').className = 'pill ' + (token ? 'on' : 'warn');
  $('tokenbar').hidden = !!token;
}

function el(tag, props = {}, ...children) {
  const e = document.createElement(tag);
  for (const [k, v] of Object.entries(props)) {
    if (k === 'class') e.className = v;
    else if (k.startsWith('on')) e.addEventListener(k.slice(2), v);
    else e[k] = v;
  }
  for (const c of children) e.append(c instanceof Node ? c : String(c));
  return e;
}

let toastTimer;
function toast(text, error) {
  const t = $('toast');
  t.textContent = text;
  t.className = 'toast' + (error ? ' error' : '');
  t.hidden = false;
  clearTimeout(toastTimer);
  toastTimer = setTimeout(() => { t.hidden = true; }, error ? 6000 : 2500);
}

// One steering request; the answer's text or error is shown.
async function steer(what, body, quiet) {
  if (!token) { toast('Read-only: the panel needs the token printed by hmisvc-devsim', true); return false; }
  try {
    const res = await fetch('/api/' + what, {
      method: 'POST',
      headers: { 'Content-Type': 'application/json', 'X-Hmisvc-Token': token },
      body: JSON.stringify(body),
    });
    const answer = await res.json().catch(() => ({ error: res.statusText }));
    if (!res.ok) { toast(`${what}: ${answer.error || res.status}`, true); return false; }
    if (!quiet) toast(`${what}: done${answer.text ? ' (' + answer.text + ')' : ''}`);
    return true;
  } catch (e) {
    toast(`${what}: ${e.message}`, true);
    return false;
  }
}
const set = (key, value) => steer('set', { key, value }, true);

function dl(target, pairs) {
  target.replaceChildren(...pairs.flatMap(([k, v]) => [el('dt', {}, k), el('dd', {}, v === '' ? '—' : v)]));
}

function signal(target, level, of = 5) {
  target.replaceChildren(...Array.from({ length: of }, (_, i) => {
    const bar = el('i', { class: i < level ? 'lit' : '' });
    bar.style.height = `${4 + i * 2.5}px`;
    return bar;
  }));
  target.title = `level ${level} of ${of}`;
}

function pill(target, on, yes, no) {
  target.textContent = on ? yes : no;
  target.className = 'pill ' + (on ? 'on' : 'off');
}

function renderState(doc) {
  const s = doc.state;
  state = s;
  $('device').textContent = `${s.system.hmi_name} · ${s.system.device_id}`;

  const b = s.backlight;
  $('bl-level').textContent = b.brightness;
  $('bl-max').textContent = b.max;
  $('bl-bar').style.width = (b.max ? 100 * b.brightness / b.max : 0) + '%';
  $('bl-lockvalue').textContent = b.lock_value;
  if (document.activeElement !== $('bl-slider')) { $('bl-slider').max = b.max; $('bl-slider').value = b.brightness; }
  $('bl-lock').checked = b.locked;

  $('beep-count').textContent = s.beep.count;
  $('beep-last').textContent = s.beep.last.join(', ');
  if (lastBeeps !== null && s.beep.count > lastBeeps) {
    const card = $('card-beep');
    card.classList.remove('flash');
    void card.offsetWidth;  // restarts the animation
    card.classList.add('flash');
  }
  lastBeeps = s.beep.count;

  clockOffset = s.date.offset_ms;
  $('clock-offset').textContent = clockOffset;
  $('clock-modifiable').checked = s.date.modifiable;
  tick();

  $('net-current').textContent = NETS[s.network.current] ?? s.network.current;
  signal($('net-level'), s.network.level);
  $('net-first').value = s.network.first;
  const e = s.ethernet.info;
  dl($('eth'), [['address', e.address], ['netmask', e.netmask], ['gateway', e.gateway],
    ['DNS', [e.dns1, e.dns2].filter(Boolean).join(', ')], ['interface', e.interface],
    ['mode', e.dhcp ? 'DHCP' : 'static'], ['MAC', s.ethernet.mac]]);

  const w = s.wifi.current;
  $('wifi-ssid').textContent = w.ssid || '—';
  pill($('wifi-state'), w.state === 'connected', 'connected', s.wifi.present ? 'disconnected' : 'no Wi-Fi');
  $('wifi-detail').textContent = w.ssid ? `${w.address} · ${w.signal_dbm} dBm · ${w.bssid}` : '';
  $('wifi-scan').replaceChildren(...s.wifi.scan.map((n) => el('tr', { class: n.ssid === s.wifi.connected ? 'joined' : '' },
    el('td', {}, n.ssid), el('td', { class: 'mono' }, n.bssid), el('td', {}, n.security), el('td', {}, `${n.signal_dbm} dBm`),
    el('td', {}, n.frequency_mhz), el('td', {}, n.ssid === s.wifi.connected
      ? el('button', { class: 'link', onclick: () => set('wifi.connected', '') }, 'disconnect')
      : el('button', { class: 'link', onclick: () => set('wifi.connected', n.ssid) }, 'join')))));

  const m = s.modem.info;
  pill($('modem-present'), s.modem.present, 'present', 'absent');
  signal($('modem-level'), m.level);
  dl($('modem'), [['operator', m.operator], ['state', m.state], ['registered', m.registered === 1 ? 'yes' : 'no'],
    ['address', m.address], ['APN', m.apn], ['mode', m.mode], ['IMEI', m.imei], ['CCID', s.modem.ccid]]);

  const r = s.remote;
  $('remote-flags').replaceChildren(...[['VNC', r.vnc_running], ['frp', r.frp_running], ['VPN', r.vpn_running]]
    .map(([name, on]) => el('span', { class: 'pill ' + (on ? 'on' : '') }, `${name} ${on ? 'running' : 'stopped'}`)));
  dl($('remote'), [['VNC mode', r.vnc_mode], ['VNC password', r.vnc_password ? '•'.repeat(r.vnc_password.length) : ''],
    ['VPN mode', r.vpn_mode], ['VPN range', r.vpn_range.filter(Boolean).join(' · ')]]);
  $('vpn').replaceChildren(el('span', { class: 'pill ' + (s.vpn.running ? 'on' : '') }, s.vpn.running ? 'running' : 'stopped'),
    el('span', { class: 'muted small' }, `value ${s.vpn.value}`));

  const rows = [];
  for (const [section, keys] of Object.entries(s.settings))
    for (const [key, value] of Object.entries(keys))
      rows.push(el('tr', {}, el('td', {}, section), el('td', {}, key), el('td', { class: 'mono' }, value)));
  $('settings').replaceChildren(...rows);

  $('endpoints').replaceChildren(...(s.broadcast.endpoints.length
    ? s.broadcast.endpoints.map((n) => el('li', {}, n)) : [el('li', { class: 'muted' }, 'none')]));

  renderServices(doc.services);
  if (document.activeElement && $('state-tree').contains(document.activeElement)) treePending = true;
  else renderTree(s);
  const blob = new Blob([JSON.stringify(s, null, 2)], { type: 'application/json' });
  URL.revokeObjectURL($('state-download').href);
  $('state-download').href = URL.createObjectURL(blob);
}

function faultText(f) {
  const what = f.delay_ms > 0 ? `answers ${f.delay_ms} ms late` : f.status === 0 ? 'failing' : `answers status ${f.status}`;
  return what + (f.calls > 0 ? ` (${f.calls} more call${f.calls > 1 ? 's' : ''})` : '');
}

function renderServices(services) {
  $('services').replaceChildren(...services.map((svc) => {
    const states = [];
    states.push(el('span', { class: 'pill ' + (svc.published ? 'on' : 'off') }, svc.published ? 'published' : 'unpublished'));
    if (svc.fault) states.push(' ', el('span', { class: 'pill warn' }, faultText(svc.fault)));
    const proc = svc.process;
    if (proc) states.push(' ', el('span', { class: 'pill ' + (proc.state === 'up' ? 'on' : 'off'), title: `restarts: ${proc.restarts}` },
      proc.state === 'up' ? `pid ${proc.pid}` : proc.state));
    const failBody = () => {
      const calls = $('fail-calls').value;
      return { service: svc.name, status: Number($('fail-status').value || 0),
        calls: calls === '' ? -1 : Number(calls), delay_ms: Number($('fail-delay').value || 0) };
    };
    return el('tr', { id: 'service-' + svc.name },
      el('td', { title: svc.methods.join(', ') }, svc.name),
      el('td', {}, ...states),
      el('td', {},
        svc.fault ? el('button', { onclick: () => steer('heal', { service: svc.name }) }, 'heal')
          : el('button', { class: 'danger', onclick: () => steer('fail', failBody()) }, 'fail'), ' ',
        svc.published ? el('button', { onclick: () => steer('unpublish', { service: svc.name }) }, 'unpublish')
          : el('button', { onclick: () => steer('publish', { service: svc.name }) }, 'publish'),
        ...(!proc ? [] : [' ', proc.state === 'crashed'
          ? el('button', { onclick: () => steer('restart', { service: svc.name }) }, 'restart')
          : el('button', { class: 'danger', onclick: () => steer('crash', { service: svc.name }) }, 'crash')])));
  }));
}

// Every value of the state as an input; arrays and maps as JSON.
function renderTree(s) {
  treePending = false;
  const leaf = (path, value) => {
    const id = 'v-' + path;
    let input;
    const apply = (v) => set(path, v);
    if (typeof value === 'boolean') {
      input = el('input', { type: 'checkbox', checked: value, id, onchange: () => apply(input.checked) });
    } else if (typeof value === 'number') {
      input = el('input', { type: 'number', value, id, onkeydown: (e) => { if (e.key === 'Enter') apply(Number(input.value)); } });
    } else if (typeof value === 'string') {
      input = el('input', { value, id, onkeydown: (e) => { if (e.key === 'Enter') apply(input.value); } });
    } else {
      input = el('textarea', { value: JSON.stringify(value), id, title: 'JSON; Ctrl+Enter applies',
        onkeydown: (e) => {
          if (e.key !== 'Enter' || !e.ctrlKey) return;
          try { apply(JSON.parse(input.value)); } catch (err) { toast(`${path}: ${err.message}`, true); }
        } });
    }
    input.dataset.key = path;
    input.addEventListener('blur', () => { if (treePending) renderTree(state); });
    return el('div', { class: 'leaf' }, el('label', { htmlFor: id }, path.split('.').slice(1).join('.')), input);
  };
  const sections = Object.entries(s).map(([section, fields]) => {
    const leaves = [];
    // Absent and failing services have their own card.
    if (section === 'services') return '';
    if (section === 'settings') {
      for (const [sec, keys] of Object.entries(fields))
        for (const [key, value] of Object.entries(keys)) leaves.push(leaf(`settings.${sec}.${key}`, value));
    } else {
      // Objects open up to their fields; arrays are edited whole.
      const walk = (path, value) => {
        if (value && typeof value === 'object' && !Array.isArray(value))
          for (const [k, v] of Object.entries(value)) walk(`${path}.${k}`, v);
        else leaves.push(leaf(path, value));
      };
      for (const [field, value] of Object.entries(fields))
        if (!['wifi.current', 'network.current', 'network.level', 'broadcast.endpoints'].includes(`${section}.${field}`))
          walk(`${section}.${field}`, value);
    }
    return leaves.length ? el('details', { open: true }, el('summary', {}, section), ...leaves) : '';
  });
  $('state-tree').replaceChildren(...sections);
}

function tick() {
  const now = new Date(Date.now() + clockOffset);
  $('clock-time').textContent = now.toLocaleTimeString([], { hour12: false });
  $('clock-date').textContent = now.toLocaleDateString([], { weekday: 'long', year: 'numeric', month: 'long', day: 'numeric' });
}

const short = (v) => v === undefined ? '' : typeof v === 'string' ? v : JSON.stringify(v);

// What the simulator did itself (a scenario's step, its own broadcast).
function noteRow(c, time, fresh) {
  const what = c.scenario ? `scenario ${c.scenario === 'step' ? `step ${c.step}: ${c.do}` : c.scenario}` : c.simulator;
  const arg = c.arg !== undefined ? short(c.arg) : c.args ? c.args.map(short).join(', ') : '';
  const outcome = c.error || (c.late_ms !== undefined ? `${c.late_ms} ms late` : c.met !== undefined ? (c.met ? 'as expected' : 'not as expected') : '');
  return el('tr', { class: (c.error || c.met === false ? 'failed' : '') + (fresh ? ' fresh' : '') },
    el('td', {}, time.toLocaleTimeString([], { hour12: false }) + '.' + String(time.getMilliseconds()).padStart(3, '0')),
    el('td', {}, 'simulator'), el('td', {}, what), el('td', {}, arg), el('td', {}, outcome), el('td', {}, ''));
}

function callRow(c, fresh) {
  const failed = c.status !== undefined;
  const time = new Date(c.time * 1000);
  if (c.scenario || c.simulator) return noteRow(c, time, fresh);
  return el('tr', { class: (failed ? 'failed' : '') + (fresh ? ' fresh' : '') },
    el('td', {}, time.toLocaleTimeString([], { hour12: false }) + '.' + String(time.getMilliseconds()).padStart(3, '0')),
    el('td', {}, `${c.caller || '?'} (${c.pid})`),
    el('td', {}, `${c.service}.${c.method ?? '#' + c.code}${c.one_way ? ' (one-way)' : ''}`),
    el('td', {}, c.args ? c.args.map(short).join(', ') : ''),
    el('td', {}, failed ? `${c.status}: ${c.error}` : short(c.reply)),
    el('td', {}, c.us));
}

function addCalls(list, fresh) {
  const body = $('calls');
  for (const c of list) body.prepend(callRow(c, fresh));
  while (body.rows.length > MAX_CALLS) body.lastChild.remove();
  $('calls-count').textContent = `(${body.rows.length} shown)`;
}

function connect() {
  const events = new EventSource('/events');
  events.addEventListener('open', () => { $('link').textContent = 'live'; $('link').className = 'pill on'; });
  events.addEventListener('error', () => { $('link').textContent = 'reconnecting…'; $('link').className = 'pill off'; });
  events.addEventListener('hello', (e) => { $('calls').replaceChildren(); addCalls(JSON.parse(e.data), false); });
  events.addEventListener('state', (e) => renderState(JSON.parse(e.data)));
  events.addEventListener('call', (e) => addCalls([JSON.parse(e.data)], true));
  events.addEventListener('lost', (e) => toast(`${e.data} updates were missed (page too slow)`, true));
}

function wire() {
  $('token-save').addEventListener('click', () => {
    token = $('token-input').value.trim();
    sessionStorage.setItem('hmisvc-token', token);
    showAccess();
  });
  $('bl-slider').addEventListener('change', () => set('backlight.brightness', Number($('bl-slider').value)));
  $('bl-lock').addEventListener('change', () => set('backlight.locked', $('bl-lock').checked));
  $('clock-modifiable').addEventListener('change', () => set('date.modifiable', $('clock-modifiable').checked));
  $('clock-reset').addEventListener('click', () => set('date.offset_ms', 0));
  $('net-first').addEventListener('change', () => set('network.first', Number($('net-first').value)));
  $('settings-form').addEventListener('submit', (e) => {
    e.preventDefault();
    const f = e.target.elements;
    // A new section is set whole: a key path needs its section to exist.
    if (state && !(f.section.value in state.settings))
      set(`settings.${f.section.value}`, { [f.key.value]: f.value.value });
    else set(`settings.${f.section.value}.${f.key.value}`, f.value.value);
  });
  const addExtra = () => $('extras').append(el('div', { class: 'row extra' },
    el('select', { name: 'type' }, el('option', { value: 'int' }, 'int'), el('option', { value: 'string' }, 'string')),
    el('input', { name: 'key', placeholder: 'key', size: 8 }), el('input', { name: 'value', placeholder: 'value', size: 10 }),
    el('button', { type: 'button', class: 'link', onclick: (e) => e.target.parentNode.remove() }, '×')));
  $('extra-add').addEventListener('click', addExtra);
  $('broadcast-form').addEventListener('submit', (e) => {
    e.preventDefault();
    const body = { action: e.target.elements.action.value, ints: {}, strings: {} };
    for (const row of document.querySelectorAll('#extras .extra')) {
      const [type, key, value] = ['type', 'key', 'value'].map((n) => row.querySelector(`[name=${n}]`).value);
      if (!key) continue;
      if (type === 'int') {
        if (!/^-?\d+$/.test(value)) { toast(`extra ${key}: "${value}" is not an integer`, true); return; }
        body.ints[key] = Number(value);
      } else body.strings[key] = value;
    }
    steer('broadcast', body);
  });
  $('state-file').addEventListener('change', async (e) => {
    const file = e.target.files[0];
    if (file) await steer('load', { state: await file.text() });
    e.target.value = '';
  });
  $('calls-clear').addEventListener('click', () => { $('calls').replaceChildren(); $('calls-count').textContent = ''; });
}

takeTokenFromUrl();
showAccess();
wire();
connect();
setInterval(tick, 1000);  // the clock face only; data arrives pushed
