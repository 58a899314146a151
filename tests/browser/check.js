// Checks a report in the browser and puts its findings in the element "check", one per line.
'use strict';
window.addEventListener('load', () => {
  const found = [];
  const fault = text => found.push('fault: ' + text);
  const tell = (name, value) => found.push(name + ': ' + value);
  const box = element => element.getBoundingClientRect();
  const overlap = (a, b) => a.left < b.right && b.left < a.right && a.top < b.bottom && b.top < a.bottom;

  const checkInside = (text, chart, title) => {
    const inner = box(text);
    const outer = box(chart);
    if (inner.width === 0) fault(`${title}: '${text.textContent}' is not drawn`);
    if (inner.left < outer.left - 0.5 || inner.right > outer.right + 0.5 || inner.top < outer.top - 0.5 ||
        inner.bottom > outer.bottom + 0.5)
      fault(`${title}: '${text.textContent}' lies outside of its chart`);
  };
  const checkApart = (texts, title) => {
    texts.forEach((one, i) => texts.slice(i + 1).forEach(other => {
      if (overlap(box(one), box(other))) fault(`${title}: '${one.textContent}' and '${other.textContent}' overlap`);
    }));
  };

  const charts = [...document.querySelectorAll('figure.chart')];
  const checkSteps = (figure, title) => {
    const area = box(figure.querySelector('.axis'));
    const bars = [...figure.querySelectorAll('rect.step')];
    if (!bars.length) fault(`${title}: there is no step`);
    for (const bar of bars) {
      const { left, right, height } = box(bar);
      if (height < 10 || right - left < 1) fault(`${title}: a step is not drawn`);
      if (left < area.left - 0.5 || right > area.right + 2.5) fault(`${title}: a step leaves the chart`);
    }
    for (const text of figure.querySelectorAll('.killed-text'))
      if (getComputedStyle(text).fill === getComputedStyle(figure.querySelector('.step-killed')).fill &&
          bars.some(bar => overlap(box(bar), box(text))))
        fault(`${title}: '${text.textContent}' can't be read on its bar`);
  };

  let lines = 0;
  for (const figure of charts) {
    const title = figure.querySelector('h3').textContent;
    const svg = figure.querySelector('svg');
    if (!svg) continue; // an installation that had nothing to do
    const ofSteps = figure.classList.contains('steps');
    if (ofSteps) checkSteps(figure, title);
    const texts = [...svg.querySelectorAll('text')];
    for (const axis of ['x-label', 'y-label'])
      if (svg.querySelectorAll('text.' + axis).length < (ofSteps && axis === 'y-label' ? 1 : 2))
        fault(`${title}: fewer than two labels of ${axis}`);
    for (const text of texts) checkInside(text, svg, title);
    checkApart(texts, title);
    lines += svg.querySelectorAll('path').length;
    for (const path of svg.querySelectorAll('path'))
      if (/NaN|undefined|Infinity/.test(path.getAttribute('d'))) fault(`${title}: a line has no numbers`);
  }
  if (document.documentElement.scrollWidth > window.innerWidth + 1) fault('the page is wider than its window');
  if (charts.length) {
    const area = box(charts[0].querySelector('svg'));
    charts[0].dispatchEvent(new PointerEvent('pointermove',
      { clientX: area.left + area.width / 2, clientY: area.top + area.height / 2 }));
    if (document.getElementById('tip').hidden) fault('the pointer shows nothing');
    tell('rows at the pointer', document.querySelectorAll('#tip tr').length);
  }
  // The browser asks for dark mode, and the page follows.
  const asked = matchMedia('(prefers-color-scheme: dark)').matches;
  const [red, green, blue] = getComputedStyle(document.body).backgroundColor.match(/\d+/g).map(Number);
  const drawn = red + green + blue < 3 * 128;
  if (asked !== drawn) fault(`the browser asks for a ${asked ? 'dark' : 'light'} page, and it is none`);
  tell('dark', drawn);
  tell('charts', charts.length);
  tell('step charts', document.querySelectorAll('figure.steps').length);
  tell('steps killed', document.querySelectorAll('rect.step-killed').length);
  tell('marked as killed', document.querySelectorAll('.killed-text').length);
  tell('lines', lines);
  tell('errors', document.getElementById('errors').textContent);
  tell('transitions', document.querySelectorAll('#transitions tbody tr').length);
  for (const tile of document.querySelectorAll('.tile'))
    tell('tile', [...tile.children].map(part => part.textContent).join(' '));
  for (const figure of document.querySelectorAll('figure.steps')) tell('title', figure.querySelector('h3').textContent);
  for (const state of document.querySelectorAll('.state')) tell('state', state.textContent);
  const normal = getComputedStyle(document.body).color;
  tell('failed titles', [...document.querySelectorAll('figure.steps h3')]
    .filter(title => getComputedStyle(title).color !== normal).length);
  tell('stacks', [...document.querySelectorAll('.part')].filter(part => part.textContent.startsWith('[00] ')).length);
  tell('script error', box(document.getElementById('script-error')).height > 0);
  const wholes = [...document.querySelectorAll('.excerpt details')];
  tell('excerpts that expand', wholes.length > 0 && wholes.every(details => {
    const whole = details.querySelector('.whole');
    const part = details.parentElement.querySelector('.part');
    const wasShown = whole.checkVisibility();
    details.open = true;
    return !wasShown && whole.checkVisibility() && part.textContent.split('\n').length === 8 &&
      whole.textContent.includes(part.textContent) && whole.textContent.split('\n').length > 8;
  }));
  tell('notes', document.querySelectorAll('#notes tbody tr').length);
  tell('empty', !document.getElementById('empty').hidden);
  const result = document.createElement('pre');
  result.id = 'check';
  result.textContent = found.join('\n');
  document.body.append(result);
});
