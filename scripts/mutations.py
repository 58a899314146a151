#!/usr/bin/env python3
"""Draws random single changes of C++ sources.

mutations.py --seed N --count N --to FOLDER [--leave-out LIST] FILE...

For each change FOLDER/1, FOLDER/2 ... is a folder with the files `path` (FILE as given), `source` (all of it, changed) and
`what` (what was changed, where). No change is drawn twice; fewer are written where there are no more. LIST names changes that
nobody can notice, each as `what` has it but for the number of the line, with the reason below it; they are not drawn.
"""
import argparse
import pathlib
import random
import re

SKIPPED = re.compile(
    r'//[^\n]*|/\*.*?\*/|^[ \t]*#[^\n]*|static_assert\(.*?\);|(?:u8|u|U|L)?R"(\w*)\(.*?\)\1"', re.S | re.M)
TEXT = re.compile(r'"(?:\\.|[^"\\\n])*"')
CHARACTER = re.compile(r"(?<!\d)'(?:\\.|[^'\\\n])+'")
COMPARISON = re.compile(r' (<=|>=|==|!=|<|>) ')
OPPOSITES = {'<': '<=', '<=': '<', '>': '>=', '>=': '>', '==': '!=', '!=': '=='}
JUNCTION = re.compile(r' (&&|\|\|) ')
CONDITION = re.compile(r'\b(?:if|while) \(')
NUMBER = re.compile(r"(?<![\w.'])(0x[0-9A-Fa-f]+|\d[\d']*(?:\.\d+)?)([uUlL]*)(?![\w.'])")
TRUTH = re.compile(r'\b(true|false)\b')
# A call, an assignment or a return without a value, after the end of another statement or the head of a block.
STATEMENT = re.compile(r'(?:[;{}:)]|\A)\s*\n[ \t]*(return;|(?!return|using|goto|typedef|delete|case|extern)(?:\(void\))?[\w:.>\-\[\]*]+'
                       r'(?:\(| [-+|&*]?= |\+\+|--)[^;{}]*;)(?=\s*\n)')


def blanked(found):
    return re.sub(r'[^\n]', ' ', found.group())


def closing(code, opening):
    """The place of the bracket that closes the one at `opening`."""
    depth = 0
    for place in range(opening, len(code)):
        depth += {'(': 1, ')': -1}.get(code[place], 0)
        if depth == 0:
            return place
    raise ValueError('a bracket is not closed')


def changes_of(source):
    """Yields (begin, end, replacement) of all changes."""
    # A text may hold what looks like a comment, and a comment a quotation mark: whichever begins first is one.
    with_texts = re.sub(f'{TEXT.pattern}|{CHARACTER.pattern}|{SKIPPED.pattern}',
                        lambda found: found.group() if found.group()[0] in '"\'' else blanked(found), source, flags=re.S | re.M)
    quotation = re.compile(f'{TEXT.pattern}|{CHARACTER.pattern}')
    code = quotation.sub(lambda found: found.group()[0] + ' ' * (len(found.group()) - 2) + found.group()[0], with_texts)
    for found in quotation.finditer(with_texts):
        if found.group()[0] == "'":
            yield *found.span(), "'~'"
        elif len(found.group()) > 2:
            yield found.start() + 1, found.start() + 1, '~'
    for found in COMPARISON.finditer(code):
        yield *found.span(1), OPPOSITES[found.group(1)]
    for found in JUNCTION.finditer(code):
        yield *found.span(1), '||' if found.group(1) == '&&' else '&&'
    for found in CONDITION.finditer(code):
        end = closing(code, found.end() - 1)
        inside = source[found.end():end]
        if ';' not in code[found.end():end]:
            yield found.end(), end, f'!({inside})'
    for found in NUMBER.finditer(code):
        digits = found.group(1).replace("'", '')
        whole, point, fraction = digits.partition('.')
        yield *found.span(1), str(int(whole, 0 if whole.startswith('0x') else 10) + 1) + point + fraction
    for found in TRUTH.finditer(code):
        yield *found.span(1), 'false' if found.group(1) == 'true' else 'true'
    place = 0
    while found := STATEMENT.search(code, place):
        yield *found.span(1), ';'
        place = found.end() - 1  # what ends this statement precedes the next


def shown(text):
    return ' '.join(text.split())


def described(source, change):
    """The lines of a change, as they were and as they are."""
    begin, end, replacement = change
    first, last = source.rfind('\n', 0, begin) + 1, source.find('\n', end)
    return shown(source[first:last]), shown(source[first:begin] + replacement + source[end:last])


def left_out(listing):
    """The changes of a list, each as its path, what it was and what it is. Raises ValueError for one without a reason."""
    blocks = [block.splitlines() for block in re.sub(r'(?m)^#.*\n', '', listing).split('\n\n') if block.strip()]
    changes = set()
    for block in blocks:
        found = re.fullmatch(r'([^ :]+): (.*)\n    changed to: (.*)\n    \S.*', '\n'.join(block).strip('\n'), re.S)
        if not found:
            raise ValueError('this is no change with a reason:\n' + '\n'.join(block))
        changes.add(found.groups())
    return changes


def write(folder, path, source, change):
    begin, end, replacement = change
    was, now = described(source, change)
    folder.mkdir(parents=True)
    (folder / 'path').write_text(path)
    (folder / 'source').write_text(source[:begin] + replacement + source[end:])
    (folder / 'what').write_text(f"{path}:{source.count(chr(10), 0, begin) + 1}: {was}\n    changed to: {now}\n")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument('--seed', type=int, required=True)
    parser.add_argument('--count', type=int, required=True)
    parser.add_argument('--to', type=pathlib.Path, required=True)
    parser.add_argument('--leave-out', type=pathlib.Path)
    parser.add_argument('files', nargs='+')
    arguments = parser.parse_args()
    sources = {path: pathlib.Path(path).read_text() for path in sorted(arguments.files)}
    drawn = [(path, change) for path, source in sources.items() for change in sorted(set(changes_of(source)))]
    random.Random(arguments.seed).shuffle(drawn)
    unseen = left_out(arguments.leave_out.read_text()) if arguments.leave_out else set()
    drawn = [(path, change) for path, change in drawn if (path, *described(sources[path], change)) not in unseen]
    for number, (path, change) in enumerate(drawn[:arguments.count], 1):
        write(arguments.to / str(number), path, sources[path], change)


if __name__ == '__main__':
    main()
