// One chart: axes, bands and lines as SVG.

const MARGIN = { left: 76, right: 34, top: 20, bottom: 28 };
const DOT_ROWS = 80; // so few rows are drawn as dots, too

function svg(name, attributes, parent, text) {
  const element = document.createElementNS('http://www.w3.org/2000/svg', name);
  for (const [key, value] of Object.entries(attributes)) element.setAttribute(key, value);
  if (text !== undefined) element.textContent = text;
  if (parent) parent.append(element);
  return element;
}

const short = number => Number(number.toFixed(1));

class Chart {
  // options: title, unit, height, range: [low, high], ticks: of the y axis if they are not round numbers, left: the
  // space for their labels
  constructor(parent, run, options) {
    this.run = run;
    this.options = options;
    this.figure = document.createElement('figure');
    this.figure.className = 'chart';
    const caption = document.createElement('figcaption');
    const title = document.createElement('h3');
    title.textContent = options.title;
    this.detail = document.createElement('span');
    this.detail.className = 'detail';
    this.detail.textContent = options.detail || '';
    caption.append(title, this.detail);
    this.figure.append(caption);
    parent.append(this.figure);
    this.svg = null;
    this.left = options.left || MARGIN.left;
  }

  // Redraws for the current width. `content(chart)` draws the data.
  draw(content) {
    this.width = Math.max(260, this.figure.clientWidth - 28);
    this.height = this.options.height;
    const old = this.svg;
    this.svg = svg('svg', { width: this.width, height: this.height, role: 'img', 'aria-label': this.options.title });
    if (old) old.replaceWith(this.svg);
    else this.figure.append(this.svg);
    this.low = this.options.range[0];
    this.high = this.options.range[1];
    this.right = this.width - MARGIN.right;
    this.bottom = this.height - MARGIN.bottom;
    this.drawBands();
    this.drawAxes();
    content(this);
    this.cross = svg('line', { class: 'cross', y1: MARGIN.top, y2: this.bottom, visibility: 'hidden' }, this.svg);
  }

  x(time) {
    const { from, to } = this.run;
    return short(this.left + (time - from) / (to - from) * (this.right - this.left));
  }

  time(x) {
    const { from, to } = this.run;
    return from + (x - this.left) / (this.right - this.left) * (to - from);
  }

  // Values above the scale stay at its upper end.
  y(value) {
    const part = (Math.min(value, this.high) - this.low) / (this.high - this.low);
    return short(this.bottom - Math.max(0, part) * (this.bottom - MARGIN.top));
  }

  band(className, from, to) {
    const x = this.x(from);
    svg('rect', { class: className, x, y: MARGIN.top, width: Math.max(1, short(this.x(to) - x)),
      height: this.bottom - MARGIN.top }, this.svg);
  }

  drawBands() {
    for (const stretch of this.run.activeStretches) this.band('active', stretch.from, stretch.to);
    for (const stretch of this.run.gaps) this.band('gap', stretch.from, stretch.to);
  }

  drawAxes() {
    for (const tick of this.options.ticks || numberTicks(this.low, this.high)) {
      const y = this.y(tick.at);
      svg('line', { class: 'grid-line', x1: this.left, x2: this.right, y1: y, y2: y }, this.svg);
      svg('text', { class: 'y-label', x: this.left - 8, y: y + 4, 'text-anchor': 'end' }, this.svg, tick.label);
    }
    if (this.options.unit)
      svg('text', { class: 'unit', x: this.left, y: MARGIN.top - 9 }, this.svg, this.options.unit);
    svg('line', { class: 'axis', x1: this.left, x2: this.right, y1: this.bottom, y2: this.bottom }, this.svg);
    const { start, from, to } = this.run;
    const room = to - from < 20 * MINUTE ? 76 : 60; // a label with seconds is wider
    for (const tick of timeTicks(start + from, start + to, this.right - this.left, room)) {
      const x = this.x(tick.at - start);
      svg('line', { class: 'axis', x1: x, x2: x, y1: this.bottom, y2: this.bottom + 4 }, this.svg);
      svg('text', { class: 'x-label', x, y: this.bottom + 21, 'text-anchor': 'middle' }, this.svg, tick.label);
    }
  }

  path(className, commands) {
    if (commands.length) svg('path', { class: className, d: commands.join('') }, this.svg);
  }

  // A line through the values of the rows; null is a gap. Rows after a gap begin a new line.
  line(className, values) {
    const commands = [];
    let open = false;
    values.forEach((value, row) => {
      if (value === null) {
        open = false;
        return;
      }
      const begins = !open || this.run.resumes[row];
      commands.push((begins ? 'M' : 'L') + this.x(this.run.time[row]) + ' ' + this.y(value));
      open = true;
    });
    this.path(className, commands);
  }

  // The same with steps: a value holds until the next row.
  steps(className, values) {
    const commands = [];
    let last = null;
    values.forEach((value, row) => {
      const x = this.x(this.run.time[row]);
      if (value !== null) {
        const begins = last === null || this.run.resumes[row];
        if (begins) commands.push('M' + x + ' ' + this.y(value));
        else if (value !== last || row === values.length - 1) commands.push('H' + x + 'V' + this.y(value));
      } else if (last !== null && !this.run.resumes[row]) {
        commands.push('H' + x);
      }
      last = value;
    });
    this.path(className, commands);
  }

  dots(className, values) {
    values.forEach((value, row) => {
      if (value !== null)
        svg('circle', { class: className, cx: this.x(this.run.time[row]), cy: this.y(value), r: 2.6 }, this.svg);
    });
  }

  diamond(className, time, value) {
    const x = this.x(time);
    const y = this.y(value);
    const r = this.run.checks > 60 ? 2.5 : 5;
    svg('path', { class: className, d: `M${x - r} ${y}L${x} ${y - r}L${x + r} ${y}L${x} ${y + r}Z` }, this.svg);
  }

  showCross(time) {
    const x = this.x(time);
    this.cross.setAttribute('x1', x);
    this.cross.setAttribute('x2', x);
    this.cross.setAttribute('visibility', 'visible');
  }

  hideCross() {
    this.cross.setAttribute('visibility', 'hidden');
  }
}
