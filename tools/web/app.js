// The dashboard page: follows /api/events and shows the robot's reporters, their last ten
// minutes and the latest trace records. Every text that comes from the robot is put into the
// page with textContent, never as markup.
'use strict';

(() => {
  const HISTORY = 600;             // seconds of timeline per reporter
  const KEEP_RECORDS = 2000;       // trace records kept by the page
  const SHOW_RECORDS = 400;        // trace records shown at once
  const SILENCE_LIMIT_MS = 5000;   // the server speaks every second; longer means it is gone
  const RECONNECT_MS = 2000;
  const MARK_COLOURS = { '0': '#3fb950', '1': '#d29922', '2': '#f85149', '3': '#a371f7' };
  const LEVEL_NAMES = { 0: 'OK', 1: 'WARN', 2: 'ERROR' };
  const TRACE_LETTERS = { 1: 'D', 2: 'I', 4: 'W', 8: 'E', 16: 'F' };

  const $ = (id) => document.getElementById(id);

  function element(tag, className, text) {
    const made = document.createElement(tag);
    if (className) made.className = className;
    if (text !== undefined) made.textContent = text;
    return made;
  }

  // Sets the text of `node` only when it changed, so the browser redoes no layout for nothing.
  function setText(node, text) {
    if (node.textContent !== text) node.textContent = text;
  }

  const markOf = (level) => (level >= 0 && level <= 2 ? String(level) : '3');
  const levelName = (level) => LEVEL_NAMES[level] || String(level);

  const page = {
    reporters: new Map(),  // "name\u0000node" -> reporter
    staleAfter: 5,
    clock: { now: 0, second: 0, at: 0 },  // the server's clocks when the last message came
    records: [],
    recordsSkipped: 0,
    droppedReports: 0,
    paused: false,
    unseenWhilePaused: 0,
    nameFilter: null,
    hidden: new Set(),     // marks ('0'..'3', 'stale') switched off
    renderQueued: false,
  };

  // The server's middleware clock now, in seconds, estimated from its last message.
  const serverNow = () => page.clock.now + (performance.now() - page.clock.at) / 1000;

  function ageText(seconds) {
    if (seconds < 60) return seconds.toFixed(1) + 's';
    const whole = Math.floor(seconds);
    if (seconds < 3600) return Math.floor(whole / 60) + 'm' + String(whole % 60).padStart(2, '0') + 's';
    const minutes = Math.floor(whole / 60);
    return Math.floor(minutes / 60) + 'h' + String(minutes % 60).padStart(2, '0') + 'm';
  }

  function clockText(seconds, withMilliseconds) {
    const date = new Date(seconds * 1000);
    const two = (n) => String(n).padStart(2, '0');
    let text = two(date.getHours()) + ':' + two(date.getMinutes()) + ':' + two(date.getSeconds());
    if (withMilliseconds) text += '.' + String(date.getMilliseconds()).padStart(3, '0');
    return text;
  }

  // ---- Reporters and their timelines ----------------------------------------------------

  function reporterKey(report) {
    return report.name + '\u0000' + report.caller_id;
  }

  function makeRow(reporter) {
    const row = element('tr');
    const cells = {};
    for (const name of ['level', 'name', 'code', 'message', 'node', 'age', 'timeline']) {
      cells[name] = row.appendChild(element('td', name));
    }
    cells.badge = cells.level.appendChild(element('span', 'badge'));
    cells.canvas = cells.timeline.appendChild(element('canvas', 'timeline'));
    row.dataset.key = reporter.key;
    reporter.row = row;
    reporter.cells = cells;
  }

  function reporterFrom(report) {
    const reporter = {
      key: reporterKey(report),
      report,
      slots: new Array(HISTORY).fill('.'),  // seconds end - 599 .. end
      end: page.clock.second,
      lastMark: markOf(report.level),
      lastSecond: page.clock.second,        // the second of the latest report
      drawn: '',
    };
    makeRow(reporter);
    return reporter;
  }

  // Moves a timeline on to `second`; a second without a report keeps the latest level while
  // that report is fresh, as the server does.
  function advance(reporter, second) {
    const steps = Math.min(second - reporter.end, HISTORY);
    for (let i = steps - 1; i >= 0; --i) {
      const at = second - i;
      reporter.slots.shift();
      reporter.slots.push(at - reporter.lastSecond < page.staleAfter ? reporter.lastMark : '.');
    }
    if (second > reporter.end) reporter.end = second;
  }

  function applySnapshot(message) {
    page.staleAfter = message.stale;
    for (const reporter of page.reporters.values()) reporter.row.remove();
    page.reporters.clear();
    for (const item of message.reporters) {
      const reporter = reporterFrom(item.report);
      const slots = [];
      for (const [mark, seconds] of item.timeline) for (let i = 0; i < seconds; ++i) slots.push(mark);
      reporter.slots = slots.slice(-HISTORY);
      const age = Math.max(0, message.now - item.report.stamp);
      reporter.lastSecond = message.second - Math.floor(age);
      page.reporters.set(reporter.key, reporter);
    }
    page.records = [];
    page.recordsSkipped = 0;
    $('trace-rows').replaceChildren();
  }

  function applyChanges(message) {
    for (const reporter of page.reporters.values()) advance(reporter, message.second);
    for (const item of message.reporters) {
      const key = reporterKey(item.report);
      let reporter = page.reporters.get(key);
      if (!reporter) {
        reporter = reporterFrom(item.report);
        page.reporters.set(key, reporter);
      }
      reporter.report = item.report;
      reporter.lastMark = markOf(item.report.level);
      reporter.lastSecond = message.second;
      reporter.slots.splice(HISTORY - item.tail.length, item.tail.length, ...item.tail);
    }
  }

  function isStale(reporter, now) {
    return now - reporter.report.stamp >= page.staleAfter;
  }

  function shown(reporter, stale) {
    if (page.hidden.has(markOf(reporter.report.level))) return false;
    if (stale && page.hidden.has('stale')) return false;
    return !page.nameFilter || page.nameFilter.test(reporter.report.name);
  }

  // Worst level first, then by name, then by node.
  function compareReporters(left, right) {
    const a = left.report;
    const b = right.report;
    if (a.level !== b.level) return b.level - a.level;
    if (a.name !== b.name) return a.name < b.name ? -1 : 1;
    return a.caller_id < b.caller_id ? -1 : a.caller_id > b.caller_id ? 1 : 0;
  }

  function drawTimeline(reporter) {
    const canvas = reporter.cells.canvas;
    const ratio = window.devicePixelRatio || 1;
    const width = Math.round(canvas.clientWidth * ratio) || 232;
    const height = Math.round(canvas.clientHeight * ratio) || 14;
    const picture = reporter.slots.join('') + width;
    if (picture === reporter.drawn) return;
    reporter.drawn = picture;
    if (canvas.width !== width) canvas.width = width;
    if (canvas.height !== height) canvas.height = height;
    const context = canvas.getContext('2d');
    context.clearRect(0, 0, width, height);
    const step = width / HISTORY;
    let start = 0;
    for (let i = 1; i <= HISTORY; ++i) {
      if (i < HISTORY && reporter.slots[i] === reporter.slots[start]) continue;
      const colour = MARK_COLOURS[reporter.slots[start]];
      if (colour) {
        context.fillStyle = colour;
        context.fillRect(Math.floor(start * step), 0, Math.ceil((i - start) * step), height);
      }
      start = i;
    }
  }

  function renderHealth() {
    const now = serverNow();
    const counts = { '0': 0, '1': 0, '2': 0, '3': 0, stale: 0 };
    const visible = [];
    for (const reporter of page.reporters.values()) {
      const stale = isStale(reporter, now);
      counts[markOf(reporter.report.level)] += 1;
      if (stale) counts.stale += 1;
      reporter.stale = stale;
      if (shown(reporter, stale)) visible.push(reporter);
    }
    visible.sort(compareReporters);

    const body = $('health-rows');
    const keep = new Set(visible.map((reporter) => reporter.row));
    for (const row of Array.from(body.children)) if (!keep.has(row)) row.remove();
    let previous = null;
    for (const reporter of visible) {
      const report = reporter.report;
      const cells = reporter.cells;
      const mark = markOf(report.level);
      cells.badge.className = 'badge mark-' + mark;
      setText(cells.badge, levelName(report.level));
      setText(cells.name, report.name);
      setText(cells.code, String(report.code));
      setText(cells.message, report.message);
      setText(cells.node, report.caller_id);
      setText(cells.age, ageText(Math.max(0, now - report.stamp)) + (reporter.stale ? ' stale' : ''));
      cells.name.title = report.name;
      cells.message.title = report.message;
      reporter.row.classList.toggle('is-stale', reporter.stale);
      const expected = previous ? previous.nextSibling : body.firstChild;
      if (reporter.row !== expected) body.insertBefore(reporter.row, expected);
      drawTimeline(reporter);
      previous = reporter.row;
    }
    $('health-empty').hidden = page.reporters.size > 0;
    for (const toggle of document.querySelectorAll('.toggle')) {
      setText(toggle.querySelector('.count'), String(counts[toggle.dataset.show]));
    }
  }

  // ---- Trace records ---------------------------------------------------------------------

  function recordRow(record) {
    const stamp = record.header.stamp;
    const row = element('div', 'trace level-' + record.level);
    row.appendChild(element('span', 'time', clockText(stamp.sec + stamp.nsec / 1e9, true)));
    row.appendChild(element('span', 'letter', TRACE_LETTERS[record.level] || 'D'));
    const origin = row.appendChild(element('span', 'origin', record.name));
    origin.appendChild(element('span', 'ids', record.pid + '/' + record.tid));
    row.appendChild(element('span', 'where', record.file + ':' + record.line + ' ' + record.function));
    row.appendChild(element('span', 'msg', record.msg));
    row.title = record.file + ':' + record.line + ' in ' + record.function;
    return row;
  }

  const minimumTraceLevel = () => Number($('trace-level').value);

  function addRecords(records, skipped) {
    page.recordsSkipped += skipped;
    if (records.length === 0) return;
    page.records.push(...records);
    if (page.records.length > KEEP_RECORDS) page.records.splice(0, page.records.length - KEEP_RECORDS);
    if (page.paused) {
      page.unseenWhilePaused += records.length;
      return;
    }
    const minimum = minimumTraceLevel();
    const fresh = document.createDocumentFragment();
    for (let i = records.length - 1; i >= 0; --i) {
      if (records[i].level >= minimum) fresh.appendChild(recordRow(records[i]));
    }
    const list = $('trace-rows');
    list.prepend(fresh);
    while (list.childElementCount > SHOW_RECORDS) list.lastElementChild.remove();
  }

  // Shows the kept records anew: after a filter change or a resume.
  function redrawRecords() {
    const minimum = minimumTraceLevel();
    const rows = document.createDocumentFragment();
    for (let i = page.records.length - 1; i >= 0 && rows.childElementCount < SHOW_RECORDS; --i) {
      if (page.records[i].level >= minimum) rows.appendChild(recordRow(page.records[i]));
    }
    $('trace-rows').replaceChildren(rows);
  }

  function renderTraceNote() {
    const pause = $('trace-pause');
    setText(pause, page.paused ? 'Resume' + (page.unseenWhilePaused ? ' (' + page.unseenWhilePaused + ' new)' : '') : 'Pause');
    pause.classList.toggle('paused', page.paused);
    setText($('trace-note'), page.records.length + ' kept');
    $('trace-empty').hidden = page.records.length > 0;
  }

  // ---- Status line -----------------------------------------------------------------------

  function setConnection(state, text) {
    const connection = $('connection');
    connection.className = 'connection ' + state;
    setText(connection, text);
  }

  function applyStatus(status) {
    setText($('stat-reporters'), String(status.reporters));
    setText($('stat-nodes'), String(status.nodes));
    setText($('stat-rate'), String(status.rate));
    page.droppedReports = status.dropped_reports;
  }

  function renderStatus() {
    const dropped = $('stat-dropped');
    const parts = [];
    if (page.droppedReports) parts.push(page.droppedReports + ' reports');
    if (page.recordsSkipped) parts.push(page.recordsSkipped + ' trace records');
    dropped.hidden = parts.length === 0;
    dropped.className = 'stat warning';
    setText(dropped, 'dropped: ' + parts.join(', '));
    if (page.clock.at) setText($('stat-clock'), clockText(serverNow(), false));
  }

  function render() {
    page.renderQueued = false;
    renderHealth();
    renderTraceNote();
    renderStatus();
  }

  function scheduleRender() {
    if (page.renderQueued) return;
    page.renderQueued = true;
    requestAnimationFrame(render);
  }

  // ---- The event stream ------------------------------------------------------------------

  let source = null;
  let lastMessageAt = 0;

  function onMessage(event) {
    lastMessageAt = performance.now();
    let message;
    try {
      message = JSON.parse(event.data);
    } catch (error) {
      console.error('unreadable event', error);
      return;
    }
    page.clock = { now: message.now, second: message.second, at: performance.now() };
    if (message.type === 'snapshot') applySnapshot(message);
    else applyChanges(message);
    addRecords(message.records, message.skipped);
    applyStatus(message.status);
    setConnection('live', 'live');
    scheduleRender();
  }

  function connect() {
    if (source) source.close();
    setConnection('connecting', page.clock.at ? 'reconnecting' : 'connecting');
    source = new EventSource('api/events');
    lastMessageAt = performance.now();
    source.onmessage = onMessage;
    source.onerror = () => {
      // The browser retries by itself unless it gave up (an answer that is not a stream).
      setConnection('offline', 'offline, retrying');
      if (source.readyState === EventSource.CLOSED) setTimeout(connect, RECONNECT_MS);
    };
  }

  // A connection that went silent (a server that stopped without closing it) is replaced.
  setInterval(() => {
    if (performance.now() - lastMessageAt > SILENCE_LIMIT_MS) {
      setConnection('offline', 'offline, retrying');
      connect();
    }
    scheduleRender();
  }, 1000);

  // ---- Controls --------------------------------------------------------------------------

  $('name-filter').addEventListener('input', (event) => {
    const text = event.target.value;
    try {
      page.nameFilter = text ? new RegExp(text) : null;
      event.target.classList.remove('invalid');
    } catch (error) {
      event.target.classList.add('invalid');  // keep the last good filter while typing
    }
    scheduleRender();
  });

  for (const toggle of document.querySelectorAll('.toggle')) {
    toggle.addEventListener('click', () => {
      const on = toggle.getAttribute('aria-pressed') !== 'true';
      toggle.setAttribute('aria-pressed', String(on));
      if (on) page.hidden.delete(toggle.dataset.show);
      else page.hidden.add(toggle.dataset.show);
      scheduleRender();
    });
  }

  $('trace-level').addEventListener('change', redrawRecords);

  $('trace-pause').addEventListener('click', () => {
    page.paused = !page.paused;
    if (!page.paused) {
      page.unseenWhilePaused = 0;
      redrawRecords();
    }
    renderTraceNote();
  });

  // ---- Envelope inspector ----------------------------------------------------------------

  function showInspection(answer) {
    const result = $('inspect-result');
    if (answer.error) {
      result.replaceChildren(element('div', 'inspect-error', answer.error));
      return;
    }
    const verdict = element('span', 'verdict ' + (answer.valid ? 'valid' : 'invalid'),
                            answer.valid ? 'valid envelope' : 'invalid envelope');
    const table = element('table');
    for (const member of answer.members) {
      const row = table.appendChild(element('tr'));
      row.appendChild(element('td', '', member.name));
      row.appendChild(element('td', member.present ? 'present' : 'missing', member.present ? 'present' : 'missing'));
      // Texts quoted as JSON, so that "" shows; data comes as its JSON text already.
      let value = '';
      if (member.value !== null) {
        value = typeof member.value === 'string' && member.name !== 'data' ? JSON.stringify(member.value) : String(member.value);
      }
      row.appendChild(element('td', 'value', value));
    }
    result.replaceChildren(verdict, table);
  }

  async function inspect() {
    try {
      const response = await fetch('api/envelope/inspect', { method: 'POST', body: $('envelope').value });
      showInspection(await response.json());
    } catch (error) {
      showInspection({ error: 'the server did not answer: ' + error.message });
    }
  }

  $('inspect').addEventListener('click', inspect);
  $('envelope').addEventListener('keydown', (event) => {
    if (event.key === 'Enter' && (event.ctrlKey || event.metaKey)) inspect();
  });
  $('inspect-example').addEventListener('click', () => {
    $('envelope').value = JSON.stringify({
      accid: 'KR-0042', title: 'pose', guid: '6f1c2a9e-3b7d-4e55-9a0c-1d2e3f405162',
      timestamp: Date.now(), data: { x: 0.5, y: -1.25, frame: 'odom' },
    });
    inspect();
  });

  // A token given in the address was kept by the server as a cookie: take it out of sight.
  if (new URLSearchParams(location.search).has('token')) history.replaceState(null, '', location.pathname);

  connect();
})();
