"""The kinds of faults. Each is a function that yields the places of a source where it can be planted."""
import re
from dataclasses import dataclass
from os.path import commonprefix

COMPARISONS = {'<': '<=', '<=': '<', '>': '>=', '>=': '>', '==': '!=', '!=': '=='}
SIGNS = {'+': '-', '-': '+', '+=': '-=', '-=': '+=', '++': '--', '--': '++'}
LOGIC = {'&&': '||', '||': '&&', '&': '|', '|': '&'}
LEVELS = {'ALOGE': 'ALOGI', 'ALOGW': 'ALOGI', 'ALOGI': 'ALOGD', 'ALOGD': 'ALOGI', 'ALOGV': 'ALOGI'}
FLIPPED = {'true': 'false', 'false': 'true', '0': '1', '1': '0'}
LOCKS = {'vexa_lock', 'lock', 'unlock', 'pthread_mutex_lock', 'pthread_mutex_unlock'}
WAKE_UPS = {'notify_all', 'eventfd_write', 'stop_flag_raise', 'kill', 'raise', 'pthread_kill', 'wake_up'}
WORD = re.compile(r'''(?<![%\\A-Za-z0-9.*-])[A-Za-z]{2,}''')


def short(text):
    return text if len(text) <= 50 else text[:47] + '...'


@dataclass(frozen=True)
class Place:
    """One fault: in the file at path, text[start:end] becomes new."""
    path: str
    line: int
    kind: str
    start: int
    end: int
    old: str
    new: str
    lines: str  # the lines it touches, as they are

    def __str__(self):
        old, new = (' '.join(text.split()) for text in (self.old, self.new))
        same = len(commonprefix([old, new]))
        hidden = max(same - 20, 0) if len(old) > 40 else 0  # of two long texts, from shortly before they differ
        return f'{self.path}:{self.line} {self.kind}: {short(old[hidden:])} -> {short(new[hidden:]) or "nothing"}'


def tokens(source, kind=None):
    """The tokens with their numbers, static_assert left out: a fault in one only fails to compile."""
    i = 0
    while i < len(source.tokens):
        if source.at(i, 'static_assert'):
            i = source.pair[i + 1]
        elif kind in (None, source.tokens[i].kind):
            yield i, source.tokens[i]
        i += 1


def replaced(source, table, spaced):
    for i, token in tokens(source):
        if token.text in table and (i == 0 or not source.at(i - 1, 'template')):
            if not spaced or source.spaced(i):
                yield token.start, token.end, table[token.text]


def comparison(source):
    yield from replaced(source, COMPARISONS, spaced=True)


def sign(source):
    yield from replaced(source, SIGNS, spaced=False)


def logic(source):
    yield from replaced(source, LOGIC, spaced=True)


def level(source):
    yield from replaced(source, LEVELS, spaced=False)


def one_more(number):
    """The number that follows a literal, written alike; None for what is no whole number."""
    digits = number.replace("'", '')
    form = re.fullmatch(r'(0[xX][0-9a-fA-F]+|0[bB][01]+|\d+)([uUlLzZ]*)', digits)
    if not form:
        return None
    text, suffix = form.groups()
    if text[:2] in ('0x', '0X'):
        return hex(int(text, 16) + 1) + suffix
    if text[:2] in ('0b', '0B'):
        return bin(int(text, 2) + 1) + suffix
    if text[0] == '0' and len(text) > 1:
        return '0%o' % (int(text, 8) + 1) + suffix
    return str(int(text) + 1) + suffix


def constant(source):
    for _, token in tokens(source):
        if token.kind in ('number', 'name'):
            new = FLIPPED.get(token.text) or (token.kind == 'number' and one_more(token.text))
            if new:
                yield token.start, token.end, new


def condition(source):
    for i, token in tokens(source):
        if token.text in ('if', 'while') and source.at(i + 1, '('):
            start, end = source.tokens[i + 1].end, source.tokens[source.pair[i + 1]].start
            start += source.text[start:end].rfind(';') + 1  # what is declared first stays
            yield start, end, '!(' + source.text[start:end].strip() + ')'


def statements(source, chosen):
    for block in source.blocks:
        for statement in block:
            part = source.tokens[statement.first:statement.last]
            if chosen(statement, {token.text for token in part}):
                yield part[0].start, part[-1].end, ';' if statement.guarded else ''


def drop(source):
    yield from statements(source, lambda statement, names: source.is_expression(statement) and not names & WAKE_UPS)


def lock(source):
    yield from statements(source, lambda statement, names: bool(names & LOCKS))


def wake_up(source):
    yield from statements(source, lambda statement, names: source.is_expression(statement) and bool(names & WAKE_UPS))


def does_something(part):
    """Whether it is more than an assignment: it counts, or calls with an argument. A cast is no call."""
    for before, token, behind in zip(part, part[1:], part[2:] + part[-1:]):
        if token.text in ('++', '--') or token.text == '(' and before.text != '>' and behind.text != ')':
            return True
    return False


def are_apart(source, one, two):
    """Two assignments of which neither needs what the other writes: their order makes no difference."""
    parts = [source.tokens[statement.first:statement.last] for statement in (one, two)]
    if any(does_something(part) for part in parts):
        return False
    targets = [{''.join(token.text for token in part).split('=')[0]} for part in parts]
    names = [{token.text for token in part if token.kind == 'name'} for part in parts]
    written = [{part[i - 1].text for i, token in enumerate(part) if token.text.endswith('=')} for part in parts]
    return targets[0] != targets[1] and not (written[0] & names[1] or written[1] & names[0])


def swap(source):
    for block in source.blocks:
        for one, two in zip(block, block[1:]):
            if one.last != two.first or one.guarded:
                continue
            if not (source.is_expression(one) and source.is_expression(two)):
                continue
            if are_apart(source, one, two):
                continue
            start, middle = source.tokens[one.first].start, source.tokens[one.last - 1].end
            behind, end = source.tokens[two.first].start, source.tokens[two.last - 1].end
            text = source.text
            yield start, end, text[behind:end] + text[middle:behind] + text[start:middle]


def another_of(names, value):
    """Another value of the same scoped enumeration that the file returns somewhere."""
    scope = value.rpartition('::')[0]
    others = [name for name in names if scope and name.startswith(scope + '::') and name != value]
    return others[0] if others else None


def returned(source):
    found = []
    for i, token in tokens(source):
        if token.text != 'return' or source.at(i + 1, ';'):
            continue
        start, last = source.tokens[i + 1].start, i + 1
        while not source.at(last, ';'):
            last = source.pair.get(last, last) + 1
        found.append((start, source.tokens[last - 1].end))
    names = sorted({source.text[start:end] for start, end in found})
    for start, end in found:
        value = source.text[start:end]
        negative = re.fullmatch(r'-(E[A-Z0-9]+|\d+)', value)
        new = FLIPPED.get(value) or (negative and '0') or one_more(value) or another_of(names, value)
        yield start, end, new or f'!({value})'


def text(source):
    for _, token in tokens(source, 'text'):
        words = list(WORD.finditer(token.text))
        words = [word for word in words if word.start() > 0]  # not a prefix of the literal
        if words and not (source.tokens and token.text.startswith('R"')):
            last = words[-1].end() - 1
            new = 'y' if token.text[last] == 'x' else 'x'
            yield token.start, token.end, token.text[:last] + new + token.text[last + 1:]


# What the kinds are called, in the order of the output.
KINDS = {
    'comparison': comparison,  # < <=, > >=, == !=
    'constant': constant,      # one more; 0 and 1, true and false
    'sign': sign,              # + -, ++ --
    'logic': logic,            # && ||, & |
    'condition': condition,    # if (x) becomes if (!(x))
    'drop': drop,              # a call or an assignment goes
    'lock': lock,              # a lock is not taken, or not let go
    'wake-up': wake_up,        # nobody is woken
    'swap': swap,              # two statements change places
    'return': returned,        # another value is returned
    'level': level,            # a log entry's level
    'text': text,              # a letter of a text: log, path, key
}

# Kinds that may leave a race, which no test has to see: the compiler's thread-safety check is asked first.
RACES = ('lock', 'swap')


def places_of(source):
    for kind, function in KINDS.items():
        for start, end, new in function(source):
            yield Place(source.path, source.line(start), kind, start, end, source.text[start:end], new,
                        source.lines(start, end))
