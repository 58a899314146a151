// Numbers and times as texts, and the ticks of axes.

const MINUTE = 60;
const HOUR = 3600;
const DAY = 86400;
const MONTHS = ['Jan', 'Feb', 'Mar', 'Apr', 'May', 'Jun', 'Jul', 'Aug', 'Sep', 'Oct', 'Nov', 'Dec'];
const TIME_STEPS = [1, 2, 5, 10, 15, 30, MINUTE, 2 * MINUTE, 5 * MINUTE, 10 * MINUTE, 15 * MINUTE, 30 * MINUTE, HOUR,
  2 * HOUR, 3 * HOUR, 6 * HOUR, 12 * HOUR, DAY, 2 * DAY, 7 * DAY, 14 * DAY, 28 * DAY];

// At most three significant digits, with a letter for thousands and more.
function formatNumber(number) {
  if (number === null) return 'no number';
  const size = Math.abs(number);
  if (size >= 1e15) return number.toExponential(2);
  for (const [factor, letter] of [[1e12, 'T'], [1e9, 'G'], [1e6, 'M'], [1e4, 'k']])
    if (size >= factor) return trim((number / (letter === 'k' ? 1e3 : factor)).toPrecision(3)) + letter;
  return size >= 100 ? String(Math.round(number)) : trim(number.toPrecision(3));
}

function trim(text) {
  return text.includes('e') ? text : text.includes('.') ? text.replace(/\.?0+$/, '') : text;
}

const two = number => String(number).padStart(2, '0');

// All times are seconds since 1970 and are shown in UTC.
function formatClock(time, seconds) {
  const date = new Date(time * 1000);
  return two(date.getUTCHours()) + ':' + two(date.getUTCMinutes()) + (seconds ? ':' + two(date.getUTCSeconds()) : '');
}

function formatDay(time, year) {
  const date = new Date(time * 1000);
  return date.getUTCDate() + ' ' + MONTHS[date.getUTCMonth()] + (year ? ' ' + date.getUTCFullYear() : '');
}

function formatDuration(seconds) {
  if (seconds < 1) return '0 s';
  if (seconds < MINUTE) return Math.round(seconds) + ' s';
  const minutes = Math.round(seconds / MINUTE);
  if (minutes < 60) return minutes + ' min';
  if (minutes < 24 * 60) return Math.floor(minutes / 60) + ' h ' + two(minutes % 60) + ' min';
  return Math.floor(minutes / 1440) + ' d ' + Math.floor(minutes % 1440 / 60) + ' h';
}

function plural(count, one, many) {
  return count + ' ' + (count === 1 ? one : many);
}

// Ticks of a time axis, at least `room` pixels apart; each with its label.
function timeTicks(from, to, width, room) {
  const least = (to - from) * room / Math.max(width, room);
  let step = TIME_STEPS.find(candidate => candidate >= least);
  for (let days = 56; step === undefined; days *= 2)
    if (days * DAY >= least) step = days * DAY;
  const ticks = [];
  for (let time = Math.ceil(from / step) * step; time <= to; time += step)
    ticks.push({ at: time, label: timeLabel(time, step, to - from) });
  // If round times are too rare, labels at both ends say more than one of them.
  if (ticks.length > 1 || width < 2 * room) return ticks;
  return [from, to].map(time => ({ at: time, label: timeLabel(Math.round(time), step, to - from) }));
}

function timeLabel(time, step, range) {
  if (step >= DAY) return formatDay(time, range > 300 * DAY);
  if (time % DAY === 0 && range > DAY) return formatDay(time);
  return formatClock(time, step < MINUTE);
}

// Some four round numbers from `from` to `to`.
function numberTicks(from, to) {
  const raw = (to - from) / 4;
  const power = 10 ** Math.floor(Math.log10(raw));
  const step = [1, 2, 2.5, 5, 10].map(factor => factor * power).find(candidate => candidate >= raw * 0.999);
  const ticks = [];
  for (let index = Math.ceil(from / step - 1e-9); index * step <= to * (1 + 1e-9); ++index)
    ticks.push({ at: index * step, label: formatNumber(Number((index * step).toPrecision(12))) });
  return ticks;
}
