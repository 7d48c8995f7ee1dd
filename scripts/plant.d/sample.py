"""Which places are planted: by seed, evenly over the kinds, without those that cannot matter."""
import random

from kinds import KINDS, places_of
from source import Source


class Sample:
    """Gives places in an order that the seed alone decides, each kind in its turn."""
    def __init__(self, places, seed):
        self.waiting = {kind: [place for place in places if place.kind == kind] for kind in KINDS}
        self.taken = dict.fromkeys(KINDS, 0)
        for kind, found in self.waiting.items():
            random.Random(f'{seed} {kind}').shuffle(found)

    def next(self, count):
        chosen = []
        while len(chosen) < count:
            kinds = [kind for kind in KINDS if self.waiting[kind]]
            if not kinds:
                break
            kind = min(kinds, key=self.taken.get)
            self.taken[kind] += 1
            chosen.append(self.waiting[kind].pop())
        return chosen

    def give_back(self, kind):
        """A place that did not count: another one of its kind takes its turn."""
        self.taken[kind] -= 1


class Unimportant:
    """The places that cannot matter: path | part of the line | kind, or * | reason."""
    def __init__(self, file):
        self.rows = []
        for number, line in enumerate(file.read_text().splitlines(), 1):
            if line.strip() and not line.startswith('#'):
                fields = [field.strip() for field in line.split(' | ')]
                if len(fields) != 4 or fields[2] not in (*KINDS, '*'):
                    raise ValueError(f'{file}:{number}: not "path | part of the line | kind or * | reason"')
                self.rows.append(fields)
        self.used = set()

    def holds(self, place):
        held = False
        for number, (path, part, kind, _) in enumerate(self.rows):
            if path == place.path and part in place.lines and kind in (place.kind, '*'):
                self.used.add(number)
                held = True
        return held

    def idle(self, paths):
        """The rows for these files that no place fits any more."""
        return [' | '.join(row) for number, row in enumerate(self.rows)
                if number not in self.used and (row[0] in paths)]


def sources(root, files, folders):
    for name in sorted(files):
        if name.startswith('src/') and name.endswith(('.cpp', '.h')):
            if any(name == folder or name.startswith(folder + '/') for folder in folders):
                yield Source(name, (root / name).read_text())


def places(found, unimportant):
    return [place for source in found for place in places_of(source) if not unimportant.holds(place)]
