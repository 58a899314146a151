// Installations and removals of the drivers: a chart of the steps of each, and a list.

const STEP_ROW = 22; // pixels
const STEP_LABELS = 208; // the space for labels
const CHARACTER = 6.8; // the maximum average width of one
const SHORTEST = 5; // seconds that a chart shows

const stepClass = step => (step.killed ? 'step step-killed' : step.failed ? 'step step-failed' :
  step.end === null ? 'step step-open' : 'step');
const took = step => formatSeconds(step.end - step.begin);

function formatSeconds(seconds) {
  if (seconds >= 120) return formatDuration(seconds);
  return trim(seconds.toFixed(seconds < 10 ? 2 : 1)) + ' s';
}

const hasFailed = driverRun => driverRun.outcome === 'failed' || driverRun.outcome === 'unfinished';

function driverTiles(run) {
  const { installations, removals, failed, killed } = run.driverTotals;
  return [[installations, installations === 1 ? 'installation' : 'installations'],
    [removals, removals === 1 ? 'removal' : 'removals'],
    [failed, 'failed', failed > 0],
    [killed, killed === 1 ? 'step killed' : 'steps killed', killed > 0]];
}

// One row for each name, in the order of their first appearance.
function stepRows(driverRun) {
  return [...new Set(driverRun.steps.map(step => step.name))];
}

function endOf(driverRun) {
  if (driverRun.end !== null) return driverRun.end;
  return driverRun.steps.reduce((end, step) => Math.max(end, step.end === null ? step.begin : step.end),
    driverRun.begin);
}

function stepContent(run, driverRun, view, rows) {
  return chart => {
    markLines(chart, view);
    for (const step of driverRun.steps) stepBar(chart, step, rows, view);
    markChips(chart, view);
  };
}

function stepBar(chart, step, rows, view) {
  const middle = chart.y(rows.length - 1 - rows.indexOf(step.name));
  const left = chart.x(step.begin);
  const width = Math.max(2, short(chart.x(step.end === null ? view.to : step.end) - left));
  svg('rect', { class: stepClass(step), x: left, y: middle - 7, width, height: 14, rx: 2 }, chart.svg);
  if (step.killed) killedText(chart, step, left, left + width, middle);
}

// After the bar, before it or on it, where there is space.
function killedText(chart, step, left, right, middle) {
  const text = `killed after ${took(step)}`;
  const room = text.length * CHARACTER + 12;
  const place = chart.right - right > room ? { x: right + 6, 'text-anchor': 'start', class: 'killed-text' } :
    right - left > room ? { x: (left + right) / 2, 'text-anchor': 'middle', class: 'killed-text on-bar' } :
      left - chart.left > room ? { x: left - 6, 'text-anchor': 'end', class: 'killed-text' } : null;
  if (place) svg('text', { ...place, y: middle + 4 }, chart.svg, text);
}

function fillSteps(parent, run, driverRun) {
  const details = document.createElement('details');
  const summary = document.createElement('summary');
  summary.textContent = plural(driverRun.steps.length, 'step', 'steps') + ' as a list';
  details.append(summary);
  const rows = driverRun.steps.map(step => [formatMoment(run, step.begin),
    { textContent: '\u00a0\u00a0'.repeat(step.depth) + step.name, className: step.killed ? 'is-killed' : '' },
    step.end === null ? 'did not end' : took(step), step.limit ? step.limit + ' s' : '',
    step.killed ? 'killed' : step.failed ? 'a call failed' : '']);
  fillList(details, ['Time (UTC)', 'Step', 'Took', 'Limit', ''], rows, 'None.');
  parent.append(details);
}

// What the machine was like when the module's function had returned.
function stateText(state) {
  const parts = [state.driver === null ? 'no driver runs' : 'driver ' + state.driver + ' runs'];
  if (state.hasMachine) {
    parts.push(state.hasFilter ? 'the filter is installed' : 'the filter is not installed',
      state.callout === null ? 'no callout' : 'callout ' + state.callout,
      ...state.adapters.map(adapter => `${adapter.name} ${adapter.bound ? 'bound' : 'not bound'}`),
      state.lock === null ? 'write lock free' : 'write lock held by ' + state.lock);
  }
  return 'Afterwards: ' + parts.join(' · ');
}

function fillLog(parent, driverRun) {
  if (driverRun.log.length) {
    const lines = driverRun.log.flatMap(line => {
      const level = line.level === 'message' ? '' : line.level + ': ';
      return ((line.time - driverRun.begin).toFixed(1).padStart(7) + ' s  ' + level + line.text).split('\n');
    });
    parent.append(make('p', 'log-title', 'End of the log'), excerpt(lines, lastLines(lines), 'The whole log'));
  }
  if (!driverRun.stack) return;
  const frames = linesOf(driverRun.stack); // the innermost first
  parent.append(make('p', 'log-title', 'Stack of the thread that hung'),
    excerpt(frames, frames.slice(0, EXCERPT_LINES), 'The whole stack'));
}

// How many of each kind came before those that the page shows.
function leftOut(run) {
  const shown = kind => run.driverRuns.filter(driverRun => driverRun.kind === kind).length;
  return { installation: run.driverTotals.installations - shown('installation'),
    removal: run.driverTotals.removals - shown('removal') };
}

function makeDriverCharts(run) {
  const charts = [];
  const numbers = leftOut(run);
  const count = numbers.installation + numbers.removal;
  if (count)
    byId('drivers').append(make('p', 'more',
      `${plural(count, 'earlier one was', 'earlier ones were')} left out of this page`));
  for (const driverRun of run.driverRuns) {
    const kind = driverRun.kind === 'installation' ? 'Installation' : 'Removal';
    const rows = stepRows(driverRun);
    const end = endOf(driverRun);
    const view = { start: run.start, from: driverRun.begin, to: Math.max(end, driverRun.begin + SHORTEST),
      activeStretches: [], gaps: [], numbered: run.numbered };
    const box = make('div', hasFailed(driverRun) ? 'driver-run failed-run' : 'driver-run', '');
    byId('drivers').append(box);
    const duration = driverRun.end === null ? '' : ` · took ${took(driverRun)}`;
    const chart = new Chart(box, view, { title: `${kind} ${++numbers[driverRun.kind]}: ${driverRun.text}`, unit: '',
      detail: formatMoment(run, driverRun.begin) + duration, left: STEP_LABELS,
      height: MARGIN.top + MARGIN.bottom + STEP_ROW * Math.max(1, rows.length), range: [-0.5, rows.length - 0.5],
      ticks: rows.map((name, index) => ({ at: rows.length - 1 - index, label: name })) });
    chart.figure.classList.add('steps');
    if (rows.length) charts.push({ chart, content: stepContent(run, driverRun, view, rows), driverRun, rows });
    if (driverRun.state) box.append(make('p', 'state', stateText(driverRun.state)));
    if (rows.length) fillSteps(box, run, driverRun);
    fillLog(box, driverRun);
  }
  return charts;
}

// The step in the pointer's row that is closest to its time.
function stepAt(chart, driverRun, rows, event) {
  const area = chart.svg.getBoundingClientRect();
  const row = Math.floor((event.clientY - area.top - MARGIN.top) / STEP_ROW);
  const time = chart.time(event.clientX - area.left);
  const away = step => Math.max(step.begin - time, time - (step.end === null ? Infinity : step.end), 0);
  return driverRun.steps.filter(step => step.name === rows[row]).sort((a, b) => away(a) - away(b))[0];
}

function fillStepTip(run, step) {
  const head = document.createElement('b');
  head.textContent = step.name;
  const table = document.createElement('table');
  const lines = [['Began', formatClock(run.start + step.begin, true)],
    ['Took', step.end === null ? 'did not end' : took(step)], ['Limit', step.limit ? step.limit + ' s' : 'not told']];
  for (const [name, value] of lines) {
    const line = table.insertRow();
    line.insertCell().textContent = name;
    line.insertCell().textContent = value;
  }
  byId('tip').replaceChildren(head, table);
}

function watchSteps(run, charts) {
  for (const { chart, driverRun, rows } of charts) {
    chart.figure.addEventListener('pointerleave', () => { byId('tip').hidden = true; });
    chart.figure.addEventListener('pointermove', event => {
      const step = stepAt(chart, driverRun, rows, event);
      byId('tip').hidden = !step;
      if (!step) return;
      fillStepTip(run, step);
      placeTip(event);
    });
  }
}
