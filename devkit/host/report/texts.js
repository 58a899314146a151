// Long texts: a part is shown, and the whole on demand.

const EXCERPT_LINES = 8;
const MAX_SHORT = 300; // characters that are shown as they are

const linesOf = text => text.replace(/\n$/, '').split('\n');
const lastLines = lines => lines.slice(-EXCERPT_LINES);

function make(tag, className, text) {
  return Object.assign(document.createElement(tag), { className, textContent: text });
}

// An element with the part of the lines, and with all of them if there are more.
function excerpt(lines, part, whole) {
  const box = make('div', 'excerpt', '');
  box.append(make('pre', 'part', part.join('\n')));
  if (part.length < lines.length) {
    const details = document.createElement('details');
    details.append(make('summary', '', `${whole}, ${lines.length} lines`), make('pre', 'whole', lines.join('\n')));
    box.append(details);
  }
  return box;
}

// A cell with the text of a note: a long one by its first line and its end.
function noteCell(text) {
  const lines = linesOf(text);
  if (text.length <= MAX_SHORT && lines.length <= EXCERPT_LINES) return { textContent: text };
  const box = make('div', '', '');
  box.append(make('div', '', lines[0]), excerpt(lines, lastLines(lines), 'The whole text'));
  return { node: box };
}
