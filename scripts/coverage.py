#!/usr/bin/env python3
"""Tells what the tests have reached, and what not.

coverage.py [--whole] ROOT LCOV JSON

LCOV and JSON are what `llvm-cov export` writes: the one has the lines, the other the outcomes of conditions with their columns, by
which those of the instances of a template are brought together. Of the sources below ROOT it prints a line "FILE:LINE: WHAT" for
each that is not fully reached, and a table. With --whole, when all test programs were run, it fails if less is reached than there must
be. A comment in a source leaves out what no test can reach:

    code;  // not reached: REASON       that line
    // not reached: REASON              alone: the statement that follows
"""
import collections
import json
import pathlib
import re
import sys

LEAST = {'lines': 100, 'branches': 97}  # percent
COMMENT = re.compile(r'// not reached: .')


def indent(text):
    return len(text) - len(text.lstrip())


def statement_after(lines, place):
    """The indices of the statement below the comment at `place`."""
    depth = indent(lines[place])
    place += 1
    while place < len(lines) and lines[place].lstrip().startswith('//'):
        place += 1
    begin = place
    while place < len(lines) and (place == begin or indent(lines[place]) > depth or
                                  (indent(lines[place]) == depth and lines[place].lstrip()[:1] in ('{', '}'))):
        place += 1
    return range(begin, place)


def excused_lines(path):
    """A dictionary from numbers of lines to that of the comment by which they are left out."""
    lines = path.read_text().split('\n')
    excused = {}
    for place, line in enumerate(lines):
        if COMMENT.search(line):
            alone = line.lstrip().startswith('//')
            for left_out in statement_after(lines, place) if alone else [place]:
                excused[left_out + 1] = place + 1
    return excused


def read_lines(lcov):
    counts = collections.defaultdict(dict)
    for line in lcov.read_text().split('\n'):
        kind, _, value = line.partition(':')
        if kind == 'SF':
            file = value
        elif kind == 'DA':
            number, count = map(int, value.split(',')[:2])
            counts[file][number] = count
    return counts


def read_branches(report):
    """For each file the counts of both outcomes of each condition, by its place."""
    counts = collections.defaultdict(lambda: collections.defaultdict(lambda: [0, 0]))
    for file in json.loads(report.read_text())['data'][0]['files']:
        for branch in file['branches']:
            outcomes = counts[file['filename']][tuple(branch[:4])]
            outcomes[0] += branch[4]
            outcomes[1] += branch[5]
    return counts


def percent(part, whole):
    return 100 * part / whole if whole else 100.0


def show_row(name, row):
    lines, reached, branches, taken = row
    print(f'{lines:6} {reached:6} {percent(reached, lines):6.1f} % {branches:6} {taken:6} {percent(taken, branches):6.1f} %  {name}')


def shortage(lines, reached, branches, taken):
    """What is missing in the sums of the table, as a line; None if nothing is."""
    short = [f'{part} of {whole} {what}, at least {LEAST[what]} %'
             for what, whole, part in (('lines', lines, reached), ('branches', branches, taken)) if percent(part, whole) < LEAST[what]]
    return f'error: the tests reach too little: {"; ".join(short)}' if short else None


def examine(path, name, lines, branches):
    """Prints what is not reached in a file, and returns its row of the table."""
    excused = excused_lines(path)
    told = collections.defaultdict(list)
    useful = set()  # comments that leave out something that is indeed not reached
    row = [0, 0, 0, 0]
    for number, count in lines.items():
        if number in excused:
            if count == 0:
                useful.add(excused[number])
            continue
        row[0] += 1
        row[1] += count > 0
        if count == 0:
            told[number].append('not reached')
    for (number, *_), outcomes in sorted(branches.items()):
        if number in excused:
            if 0 in outcomes:
                useful.add(excused[number])
            continue
        row[2] += 2
        row[3] += sum(count > 0 for count in outcomes)
        if lines.get(number, 1) > 0:
            told[number] += [what for what, count in zip(('never true', 'never false'), outcomes) if count == 0]
    for comment in set(excused.values()) - useful:
        told[comment].append('the comment says "not reached", and all of it is reached')
    for number, what in sorted(told.items()):
        if what:
            print(f'{name}:{number}: {", ".join(what)}')
    return row


def main():
    arguments = sys.argv[1:]
    is_whole = arguments[:1] == ['--whole']
    root, lcov, report = map(pathlib.Path, arguments[is_whole:])
    lines, branches = read_lines(lcov), read_branches(report)
    if not lines:
        sys.exit('error: the report has no sources')
    rows = {}
    for file in sorted(lines):
        name = file.removeprefix(f'{root}/').removeprefix('./')
        rows[name] = examine(root / name, name, lines[file], branches[file])
    print(' lines reached        branches reached          file')
    for name, row in rows.items():
        show_row(name, row)
    sums = [sum(column) for column in zip(*rows.values())]
    show_row('all', sums)
    if is_whole:
        sys.stdout.flush()
        sys.exit(shortage(*sums))


if __name__ == '__main__':
    main()
