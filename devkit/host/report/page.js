// The page: reads the run, draws charts and lists.

const STEP = { FAIL_OPEN: 1, CHECK_FAILED: 2, RECOVERED: 3 };
const MAX_LISTED = 300;
const METRICS = {
  rqpct: { title: 'Processor queue', unit: 'processes' },
  refusalpct: { title: 'Refused connections', unit: '% of new connections' },
  estab: { title: 'Established connections', unit: 'connections/s per processor' },
  scanmb: { title: 'Scanned data', unit: 'MiB/s per processor' },
  frepct: { title: 'Free memory', unit: '% of physical memory', isFloor: true },
  delta_t: { title: 'Iteration interval', unit: 'seconds' },
};
const byId = id => document.getElementById(id);

let failures = 0;
function reportFailure(text) {
  byId('errors').textContent = String(++failures);
  byId('failure-text').textContent = text;
  byId('failure').hidden = false;
}
window.addEventListener('error', event => reportFailure(event.message));

// The run ------------------------------------------------------------------------------------------------------

function readRun() {
  const run = JSON.parse(byId('run').textContent);
  const times = run.time.filter(time => time !== null);
  const ends = times.concat(times.length ? shownNotes(run, times).map(note => note.time) : []);
  run.from = Math.min(...rangeOf(ends));
  run.to = Math.max(...rangeOf(ends));
  if (run.to - run.from < 1) {
    run.from -= 30;
    run.to += 30;
  }
  for (const metric of run.metrics) Object.assign(metric, METRICS[metric.name]);
  run.activeStretches = stretches(run, row => run.active[row] === 1);
  run.gaps = [];
  run.resumes.forEach((resumes, row) => {
    if (row > 0 && resumes && run.time[row] > run.time[row - 1])
      run.gaps.push({ from: run.time[row - 1], to: run.time[row] });
  });
  run.checks = run.step.filter((_, row) => isCheck(run, row)).length;
  run.numbered = run.notes.filter(note => note.kind !== 'error');
  run.numbered.forEach((note, index) => { note.number = index + 1; });
  return run;
}

// Spread arguments have a limit; a lowest and a highest value are enough.
function rangeOf(numbers) {
  return numbers.length ? [numbers.reduce((a, b) => Math.min(a, b)), numbers.reduce((a, b) => Math.max(a, b))] : [0, 0];
}

// Notes long before or after the iterations would squeeze the charts.
function shownNotes(run, times) {
  const [low, high] = rangeOf(times);
  const near = Math.max(60, (high - low) * 0.1);
  return run.notes.filter(note => note.time > low - near && note.time < high + near);
}

// Stretches of rows with the property, each until the next row or the gap.
function stretches(run, has) {
  const result = [];
  run.time.forEach((time, row) => {
    if (!has(row)) return;
    const isLast = row + 1 === run.time.length;
    const end = isLast || run.resumes[row + 1] ? time : run.time[row + 1];
    const previous = result[result.length - 1];
    if (previous && row > 0 && has(row - 1) && !run.resumes[row] && previous.to === time) previous.to = end;
    else result.push({ from: time, to: end });
  });
  return result;
}

const isOff = (metric, row) => metric.value[row] === 0 && metric.limit[row] === 0;

function isOver(metric, row) {
  const value = metric.value[row];
  const limit = metric.limit[row];
  if (isOff(metric, row) || value === null || limit === null) return false;
  return metric.isFloor ? value < limit : value > limit;
}

const isCheck = (run, row) => run.step[row] === STEP.CHECK_FAILED || run.step[row] === STEP.RECOVERED;

// Charts -------------------------------------------------------------------------------------------------------

// A scale that a few huge values don't flatten: those stay at its end.
function scaleOf(metric) {
  const values = metric.value.filter(value => value !== null);
  const limits = metric.limit.filter(limit => limit !== null);
  const sorted = values.concat(limits).sort((a, b) => a - b);
  if (!sorted.some(value => value !== 0)) return [0, 1];
  const usual = Math.max(sorted[Math.floor((sorted.length - 1) * 0.98)], rangeOf(limits)[1]);
  const highest = Math.min(sorted[sorted.length - 1], usual > 0 ? usual * 4 : Infinity);
  const low = Math.min(0, sorted[0]);
  return [low, Math.max(highest, low + 0.001) * 1.08 || 1];
}

function describe(metric, run) {
  const checked = run.time.map((_, row) => row).filter(row => !isOff(metric, row));
  if (!checked.length) return 'never checked: no limit is configured';
  const over = checked.filter(row => isOver(metric, row)).length;
  const [low, high] = rangeOf(checked.map(row => metric.value[row]).filter(value => value !== null));
  return `${metric.name} · from ${formatNumber(low)} to ${formatNumber(high)}` +
    (over ? ` · past its limit in ${plural(over, 'iteration', 'iterations')}` : '');
}

// The limit between recovery checks; those have their own limits.
function usualLimits(metric, run) {
  let last = null;
  return metric.limit.map((limit, row) => {
    if (isOff(metric, row)) return (last = null);
    if (!isCheck(run, row) || last === null) last = limit;
    return last;
  });
}

function metricContent(metric, run) {
  const off = stretches(run, row => isOff(metric, row));
  const values = metric.value.map((value, row) => (isOff(metric, row) ? null : value));
  const over = values.map((value, row) => (isOver(metric, row) ? value : null));
  const limits = usualLimits(metric, run);
  return chart => {
    for (const stretch of off) chart.band('off', stretch.from, stretch.to);
    chart.line('value', values);
    chart.line('over', over);
    if (run.time.length <= DOT_ROWS) chart.dots('value-dot', values);
    chart.dots('over-dot', over.map((value, row) => (over[row - 1] == null && over[row + 1] == null ? value : null)));
    chart.steps('limit', limits);
    if (run.time.length === 1 && limits[0] !== null)
      chart.path('limit', [`M${chart.left} ${chart.y(limits[0])}H${chart.right}`]);
    checkDiamonds(chart, run, metric.limit.map((limit, row) => (isOff(metric, row) ? null : limit)));
    markLines(chart, run);
  };
}

// Recovery checks, each at its value.
function checkDiamonds(chart, run, values) {
  values.forEach((value, row) => {
    if (isCheck(run, row) && value !== null)
      chart.diamond(run.step[row] === STEP.RECOVERED ? 'passed' : 'failed', run.time[row], value);
  });
}

function stateContent(run) {
  return chart => {
    chart.steps('state', run.active);
    if (run.time.length <= DOT_ROWS) chart.dots('over-dot', run.active);
    checkDiamonds(chart, run, run.active);
    for (const note of run.notes)
      if (note.kind === 'error' && isShown(run, note))
        errorBar(chart, note.time, Math.min(note.until, run.to));
    markLines(chart, run);
    markChips(chart, run);
  };
}

function errorBar(chart, from, to) {
  const x = chart.x(from);
  const width = Math.max(2, short(chart.x(to) - x));
  svg('rect', { class: 'error-bar', x, y: chart.bottom - 6, width, height: 5 }, chart.svg);
}

function backoffContent(run) {
  const isWaiting = row => run.active[row] === 1 && run.wait[row] > 0;
  const wait = run.wait.map((minutes, row) => (isWaiting(row) ? minutes : null));
  const next = run.next.map((minutes, row) => (isWaiting(row) ? minutes : null));
  return chart => {
    chart.line('next', next);
    chart.steps('wait', wait);
    if (run.time.length <= DOT_ROWS) chart.dots('value-dot', wait);
    checkDiamonds(chart, run, run.wait);
    markLines(chart, run);
  };
}

const isShown = (run, note) => note.time >= run.from && note.time <= run.to;

function markLines(chart, run) {
  for (const note of run.numbered)
    if (isShown(run, note))
      svg('line', { class: 'mark-line', x1: chart.x(note.time), x2: chart.x(note.time), y1: MARGIN.top,
        y2: chart.bottom }, chart.svg);
}

// The numbers of marks above the chart; overlapping ones share one chip.
function markChips(chart, run) {
  const chips = [];
  for (const note of run.numbered.filter(note => isShown(run, note)).sort((a, b) => a.time - b.time)) {
    let chip = { first: note.number, last: note.number, from: chart.x(note.time), to: chart.x(note.time) };
    for (let before = chips.pop(); before !== undefined; before = chips.pop()) {
      if (boundsOf(before).right + 2 < boundsOf(chip).left) {
        chips.push(before);
        break;
      }
      chip = { first: Math.min(before.first, chip.first), last: Math.max(before.last, chip.last), from: before.from,
        to: chip.to };
    }
    chips.push(chip);
  }
  for (const chip of chips) {
    const { left, right, label } = boundsOf(chip);
    svg('rect', { class: 'mark', x: left, y: 1, width: right - left, height: 16, rx: 8 }, chart.svg);
    svg('text', { class: 'mark-text', x: (left + right) / 2, y: 12.5, 'text-anchor': 'middle' }, chart.svg, label);
  }
}

function boundsOf(chip) {
  const label = chip.first === chip.last ? String(chip.first) : chip.first + '–' + chip.last;
  const half = Math.max(8, label.length * 3.4 + 4);
  const middle = (chip.from + chip.to) / 2;
  return { left: middle - half, right: middle + half, label };
}

function makeCharts(run) {
  const charts = [];
  const add = (parent, options, content) => charts.push({ chart: new Chart(byId(parent), run, options), content });
  add('timeline', { title: 'State and action', unit: '', height: 112, range: [-0.25, 1.25],
    ticks: [{ at: 0, label: 'normal 0' }, { at: 1, label: 'fail-open 1' }],
    detail: 'Deactivated returns action 0, Activated returns action 1; red bars at the bottom are errors in the log' },
    stateContent(run));
  const longest = Math.max(1, rangeOf(run.wait)[1]);
  add('timeline', { title: 'Backoff', unit: 'minutes', height: 150, range: [0, longest * 1.1],
    detail: 'the wait and the time until the next recovery check' }, backoffContent(run));
  for (const metric of run.metrics)
    add('metrics', { title: metric.title, unit: metric.unit, height: 190, range: scaleOf(metric),
      detail: describe(metric, run) }, metricContent(metric, run));
  nameBackoffLines(charts[1].chart);
  return charts;
}

function nameBackoffLines(chart) {
  const part = (className, text) => {
    const element = document.createElement('span');
    element.className = className;
    element.textContent = text;
    return element;
  };
  chart.detail.replaceChildren(part('swatch-wait', '— wait'), '   ',
    part('swatch-next', '— until the next recovery check'));
}

// Tooltip of a row -----------------------------------------------------------------------------------------------

function nearestRow(run, time) {
  let best = 0;
  run.time.forEach((candidate, row) => {
    if (Math.abs(candidate - time) < Math.abs(run.time[best] - time)) best = row;
  });
  return best;
}

function fillTip(run, row) {
  const head = document.createElement('b');
  const time = run.start + run.time[row];
  const state = run.active[row] ? 'fail-open' : 'normal';
  head.textContent = `${formatDay(time)} ${formatClock(time, true)} · ${state}`;
  const table = document.createElement('table');
  for (const metric of run.metrics) {
    const line = table.insertRow();
    line.insertCell().textContent = metric.title;
    const cell = line.insertCell();
    const bound = metric.isFloor ? 'at least' : 'at most';
    cell.textContent = isOff(metric, row) ? 'not checked' :
      `${formatNumber(metric.value[row])} (${bound} ${formatNumber(metric.limit[row])})`;
    if (isOver(metric, row)) cell.className = 'is-over';
  }
  if (run.active[row] && run.wait[row]) {
    const line = table.insertRow();
    line.insertCell().textContent = 'Next check';
    line.insertCell().textContent = `in ${run.next[row]} of ${run.wait[row]} min`;
  }
  byId('tip').replaceChildren(head, table);
}

// Beside the pointer, and inside the window.
function placeTip(event) {
  const away = 16;
  const tip = byId('tip');
  tip.hidden = false;
  const fits = event.clientX + away + tip.offsetWidth <= window.innerWidth;
  const left = fits ? event.clientX + away : event.clientX - away - tip.offsetWidth;
  tip.style.left = Math.max(4, left) + 'px';
  tip.style.top = Math.max(4, Math.min(event.clientY + away, window.innerHeight - tip.offsetHeight - 8)) + 'px';
}

function watchPointer(run, charts) {
  const hide = () => {
    byId('tip').hidden = true;
    for (const { chart } of charts) chart.hideCross();
  };
  for (const { chart } of charts) {
    chart.figure.addEventListener('pointerleave', hide);
    chart.figure.addEventListener('pointermove', event => {
      const row = nearestRow(run, chart.time(event.clientX - chart.svg.getBoundingClientRect().left));
      for (const other of charts) other.chart.showCross(run.time[row]);
      fillTip(run, row);
      placeTip(event);
    });
  }
}

// Summary and lists --------------------------------------------------------------------------------------------

function fillHead(run) {
  const name = run.script.split(/[\\/]/).pop();
  const subject = run.time.length && run.driverRuns.length ? 'Health and driver report' :
    run.driverRuns.length ? 'Driver report' : 'Health report';
  byId('title').textContent = subject;
  document.title = subject + (name ? ' · ' + name : '');
  const parts = [];
  if (name) parts.push(name);
  if (run.status) parts.push(`ended with status ${run.status}`);
  const times = [...run.time, ...run.driverRuns.flatMap(driverRun => [driverRun.begin, endOf(driverRun)])];
  if (times.length) {
    const [begin, end] = rangeOf(times).map(time => run.start + time);
    const lastDay = formatDay(begin, true) === formatDay(end, true) ? '' : formatDay(end, true) + ', ';
    parts.push(`${formatDay(begin, true)}, ${formatClock(begin, true)} to ${lastDay}${formatClock(end, true)} UTC`);
  }
  if (run.iterations > run.time.length)
    parts.push(`${run.time.length} of ${run.iterations} iterations are drawn: ` +
      'transitions, and the extremes between them');
  byId('subtitle').textContent = parts.join(' · ');
}

function healthTiles(run) {
  const count = step => run.step.filter(candidate => candidate === step).length;
  const open = run.activeStretches.reduce((sum, stretch) => sum + stretch.to - stretch.from, 0);
  return [
    [run.iterations, run.iterations === 1 ? 'iteration' : 'iterations'],
    [formatDuration(open), 'in fail-open'],
    [count(STEP.FAIL_OPEN), 'times into fail-open'],
    [count(STEP.RECOVERED), 'recoveries'],
    [count(STEP.CHECK_FAILED), 'failed recovery checks'],
  ];
}

// All that went wrong: in the log, of the drivers, and in the script; also what the page does not list.
function errorTile(run) {
  const logged = run.errors;
  const { failed } = run.driverTotals;
  const ofScript = run.error ? 1 : 0;
  const parts = [logged ? logged + ' in the log' : '', failed ? failed + ' failed' : '', ofScript ? 'the script' : ''];
  const errors = logged + failed + ofScript;
  const which = errors ? ': ' + parts.filter(part => part).join(', ') : '';
  return [errors, (errors === 1 ? 'error' : 'errors') + which, errors > 0];
}

function fillTiles(run) {
  const tiles = [...(run.time.length ? healthTiles(run) : []), ...(run.driverRuns.length ? driverTiles(run) : []),
    errorTile(run)];
  for (const [value, label, bad] of tiles) {
    const tile = document.createElement('div');
    tile.className = bad ? 'tile bad' : 'tile';
    const number = document.createElement('b');
    number.textContent = String(value);
    const text = document.createElement('span');
    text.textContent = label;
    tile.append(number, text);
    byId('tiles').append(tile);
  }
}

// titles: of the columns; rows: arrays of { textContent, className }, { node } or texts.
function fillList(target, titles, rows, nothing) {
  if (!rows.length) {
    target.textContent = nothing;
    return;
  }
  const box = document.createElement('div');
  box.className = 'list';
  const table = document.createElement('table');
  const head = table.createTHead().insertRow();
  for (const title of titles) head.append(Object.assign(document.createElement('th'), { textContent: title }));
  const body = table.createTBody();
  for (const row of rows.slice(0, MAX_LISTED)) {
    const line = body.insertRow();
    for (const cell of row) {
      if (cell.node) line.insertCell().append(cell.node);
      else Object.assign(line.insertCell(), typeof cell === 'object' ? cell : { textContent: cell });
    }
  }
  box.append(table);
  target.append(box);
  if (rows.length > MAX_LISTED) {
    const more = document.createElement('p');
    more.className = 'more';
    more.textContent = `and ${rows.length - MAX_LISTED} more`;
    target.append(more);
  }
}

function reasonsOf(run, row) {
  const reasons = run.metrics.filter(metric => isOver(metric, row)).map(metric => {
    const side = metric.isFloor ? 'below' : 'above';
    return `${metric.title} ${formatNumber(metric.value[row])} is ${side} ${formatNumber(metric.limit[row])}`;
  });
  return reasons.join(', ') || 'a metric just past its limit';
}

function formatMoment(run, offset) {
  const time = run.start + offset;
  return (run.to - run.from > DAY ? formatDay(time) + ' ' : '') + formatClock(time, true);
}

function fillTransitions(run) {
  const rows = [];
  run.step.forEach((step, row) => {
    const time = formatMoment(run, run.time[row]);
    if (step === STEP.FAIL_OPEN)
      rows.push([time, { textContent: 'Into fail-open', className: 'is-fail-open narrow' }, reasonsOf(run, row)]);
    else if (step === STEP.CHECK_FAILED)
      rows.push([time, { textContent: 'Check failed', className: 'narrow' },
        `${reasonsOf(run, row)}; the next check is in ${run.wait[row]} min`]);
    else if (step === STEP.RECOVERED)
      rows.push([time, { textContent: 'Recovered', className: 'is-recovered narrow' },
        'all checked metrics are within the limits for recovery']);
  });
  fillList(byId('transitions'), ['Time (UTC)', 'What', 'Why'], rows, 'None: the state did not change.');
}

function fillNotes(run) {
  const rows = run.notes.map(note => {
    const often = note.count > 1 ? ` (${note.count} times, until ${formatMoment(run, note.until)})` : '';
    return [formatMoment(run, note.time), { textContent: note.number || '', className: 'narrow' },
      { textContent: note.kind, className: note.kind === 'error' ? 'is-error narrow' : 'narrow' }, noteCell(note.text + often)];
  });
  fillList(byId('notes'), ['Time (UTC)', 'No.', 'Kind', 'Text'], rows, 'None.');
  if (run.notesLeftOut)
    byId('notes').append(Object.assign(document.createElement('p'), { className: 'more',
      textContent: `${run.notesLeftOut} more were left out of this page` }));
}

function addHatch() {
  const holder = svg('svg', { width: 0, height: 0, style: 'position:absolute', 'aria-hidden': 'true' }, document.body);
  const pattern = svg('pattern', { id: 'hatch', width: 7, height: 7, patternUnits: 'userSpaceOnUse',
    patternTransform: 'rotate(45)' }, svg('defs', {}, holder));
  svg('line', { id: 'hatch-line', x1: 0, y1: 0, x2: 0, y2: 7 }, pattern);
}

// Draws all charts, and redraws them when the width of the window changes.
function showCharts(charts) {
  const drawAll = () => charts.forEach(({ chart, content }) => chart.draw(content));
  drawAll();
  let width = window.innerWidth;
  window.addEventListener('resize', () => {
    if (window.innerWidth !== width) drawAll();
    width = window.innerWidth;
  });
}

function main() {
  const run = readRun();
  document.querySelector('main').hidden = false;
  fillHead(run);
  byId('script-error').hidden = !run.error;
  byId('script-error-text').textContent = run.error;
  const hasHealth = run.time.length > 0;
  const hasDrivers = run.driverRuns.length > 0;
  byId('empty').hidden = hasHealth || hasDrivers;
  byId('tiles').hidden = !hasHealth && !hasDrivers && !run.error;
  for (const id of ['charts-section', 'transitions-section']) byId(id).hidden = !hasHealth;
  byId('drivers-section').hidden = !hasDrivers;
  fillNotes(run);
  fillTiles(run);
  addHatch();
  const health = hasHealth ? makeCharts(run) : [];
  const drivers = makeDriverCharts(run);
  showCharts([...health, ...drivers]);
  watchPointer(run, health);
  watchSteps(run, drivers);
  if (hasHealth) fillTransitions(run);
}

main();
