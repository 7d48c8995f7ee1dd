"""Faults as patches: unified differences, each behind lines that say the fault in words."""
import difflib
import re

HUNK = re.compile(r'@@ -(\d+)(?:,\d+)? \+\d+(?:,\d+)? @@')


class DoesNotApply(Exception):
    pass


def difference(path, before, after):
    return ''.join(line if line.endswith('\n') else line + '\n\\ No newline at end of file\n'
                   for line in difflib.unified_diff(before.splitlines(True), after.splitlines(True),
                                                    'a/' + path, 'b/' + path, n=3))


def split(text):
    """The (words, patch) pairs of a text. A patch begins behind the words, which begin with '#'."""
    found, words, lines = [], [], []
    for line in text.splitlines(True):
        is_word = line.startswith('#')
        if is_word and lines:
            found.append((words, lines))
            words, lines = [], []
        if is_word:
            words.append(line[1:].strip())
        elif lines or line.startswith('--- '):
            lines.append(line)
    if lines:
        found.append((words, lines))
    return [(' '.join(words), ''.join(lines)) for words, lines in found]


def hunks(patch):
    """(path, line, lines before, lines after) of each hunk."""
    path = None
    for line in patch.splitlines(True):
        start = HUNK.match(line)
        if line.startswith('+++ '):
            path = re.sub(r'^b/', '', line[4:].split('\t')[0].strip())
            hunk = None
        elif start:
            hunk = (path, int(start.group(1)), [], [])
            yield hunk
        elif path and hunk and line[0] in ' -+':
            if line[0] != '+':
                hunk[2].append(line[1:])
            if line[0] != '-':
                hunk[3].append(line[1:])


def place_of(lines, wanted, near):
    """Where `wanted` stands in `lines`, nearest to a line number; None: nowhere."""
    fits = [i for i in range(len(lines) - len(wanted) + 1) if lines[i:i + len(wanted)] == wanted]
    return min(fits, key=lambda i: abs(i - near), default=None)


def apply(patch, read):
    """The texts of the files that a patch changes, by path. `read` gives a file's text."""
    changed = {}
    for path, line, before, after in list(hunks(patch)):
        try:
            lines = changed.get(path) or read(path).splitlines(True)
        except OSError:
            raise DoesNotApply(f'{path}: no such file')
        at = place_of(lines, before, line - 1)
        if at is None:
            raise DoesNotApply(f'{path}: what stood around line {line} is not there any more')
        changed[path] = lines[:at] + after + lines[at + len(before):]
    if not changed:
        raise DoesNotApply('no change in it')
    return {path: ''.join(lines) for path, lines in changed.items()}
