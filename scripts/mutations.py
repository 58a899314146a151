#!/usr/bin/env python3
"""Draws random single changes of C++ sources.

mutations.py --seed N --count N --to FOLDER FILE...

For each change FOLDER/1, FOLDER/2 ... is a folder with the files `path` (FILE as given), `source` (all of it, changed) and
`what` (what was changed, where). No change is drawn twice; fewer are written where there are no more.
"""
import argparse
import pathlib
import random
import re

SKIPPED = re.compile(
    r'//[^\n]*|/\*.*?\*/|^[ \t]*#[^\n]*|static_assert\(.*?\);|(?:u8|u|U|L)?R"(\w*)\(.*?\)\1"|\'(?:\\.|[^\'\\\n])+\'', re.S | re.M)
TEXT = re.compile(r'"(?:\\.|[^"\\\n])*"')
COMPARISON = re.compile(r' (<=|>=|==|!=|<|>) ')
OPPOSITES = {'<': '<=', '<=': '<', '>': '>=', '>=': '>', '==': '!=', '!=': '=='}
JUNCTION = re.compile(r' (&&|\|\|) ')
CONDITION = re.compile(r'\b(?:if|while) \(')
NUMBER = re.compile(r"(?<![\w.'])(\d[\d']*|0x[0-9A-Fa-f]+)([uUlL]*)(?![\w.'])")
TRUTH = re.compile(r'\b(true|false)\b')
# A call or an assignment in one line, after the end of another statement or the head of a block.
STATEMENT = re.compile(r'(?:[;{}:)]|\A)\s*\n[ \t]*((?!return|using|goto|typedef|delete|case|extern)(?:\(void\))?[\w:.>\-\[\]*]+'
                       r'(?:\(| [-+|&*]?= |\+\+|--)[^;{}\n]*;)(?=\s*\n)')


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
    with_texts = re.sub(f'{TEXT.pattern}|{SKIPPED.pattern}',
                        lambda found: found.group() if found.group()[0] == '"' else blanked(found), source, flags=re.S | re.M)
    code = TEXT.sub(lambda found: '"' + ' ' * (len(found.group()) - 2) + '"', with_texts)
    for found in TEXT.finditer(with_texts):
        if len(found.group()) > 2:
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
        number = int(found.group(1).replace("'", ''), 0 if found.group(1).startswith('0x') else 10)
        yield *found.span(1), str(number + 1)
    for found in TRUTH.finditer(code):
        yield *found.span(1), 'false' if found.group(1) == 'true' else 'true'
    for found in STATEMENT.finditer(code):
        yield *found.span(1), ';'


def shown(text):
    return ' '.join(text.split())


def write(folder, path, source, change):
    begin, end, replacement = change
    changed = source[:begin] + replacement + source[end:]
    line = source.count('\n', 0, begin) + 1
    first, last = source.rfind('\n', 0, begin) + 1, source.find('\n', end)
    after = source[first:begin] + replacement + source[end:last]
    folder.mkdir(parents=True)
    (folder / 'path').write_text(path)
    (folder / 'source').write_text(changed)
    (folder / 'what').write_text(f'{path}:{line}: {shown(source[first:last])}\n    changed to: {shown(after)}\n')


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument('--seed', type=int, required=True)
    parser.add_argument('--count', type=int, required=True)
    parser.add_argument('--to', type=pathlib.Path, required=True)
    parser.add_argument('files', nargs='+')
    arguments = parser.parse_args()
    sources = {path: pathlib.Path(path).read_text() for path in sorted(arguments.files)}
    drawn = [(path, change) for path, source in sources.items() for change in sorted(set(changes_of(source)))]
    random.Random(arguments.seed).shuffle(drawn)
    for number, (path, change) in enumerate(drawn[:arguments.count], 1):
        write(arguments.to / str(number), path, sources[path], change)


if __name__ == '__main__':
    main()
