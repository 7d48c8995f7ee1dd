"""C++ as far as planting needs it: tokens with their places, brackets in pairs, simple statements."""
import re
from dataclasses import dataclass

TOKEN = re.compile(
    r'''(?P<skip>//[^\n]*|/\*.*?\*/|^[ \t]*\#(?:\\\n|[^\n])*|\s+)
      |(?P<text>(?:u8|[uUL])?(?:R"(?P<raw>\w*)\(.*?\)(?P=raw)"|"(?:\\.|[^"\\\n])*"))
      |(?P<char>'(?:\\.|[^'\\\n])+')
      |(?P<number>\.?\d(?:'?[\w.])*)
      |(?P<name>[A-Za-z_]\w*)
      |(?P<op><<=|>>=|<=>|->|\+\+|--|<<|>>|<=|>=|==|!=|&&|\|\||::|[-+*/%&|^]=|.)''',
    re.X | re.S | re.M)
CLOSING = {')': '(', ']': '[', '}': '{'}
HEADERS = {'if', 'while', 'for', 'switch'}
NO_EXPRESSION = {'break', 'case', 'co_return', 'const', 'constexpr', 'continue', 'default', 'delete', 'friend', 'goto',
                 'namespace', 'return', 'static', 'static_assert', 'template', 'throw', 'typedef', 'using'}
ASSIGNMENTS = {'=', '+=', '-=', '*=', '/=', '%=', '&=', '|=', '^=', '<<=', '>>='}


@dataclass
class Token:
    kind: str
    text: str
    start: int

    @property
    def end(self):
        return self.start + len(self.text)


@dataclass
class Statement:
    """tokens[first:last]; the last one is the ';'. Guarded: the lone statement of an if or a loop."""
    first: int
    last: int
    guarded: bool


class Source:
    def __init__(self, path, text):
        self.path, self.text = path, text
        self.tokens = [Token(m.lastgroup if m.lastgroup != 'raw' else 'text', m.group(), m.start())
                       for m in TOKEN.finditer(text) if m.lastgroup != 'skip']
        self.pair = self._pairs()
        self.blocks = [list(self._statements(i)) for i, t in enumerate(self.tokens)
                       if t.text == '{' and self._is_code(i)]

    def line(self, position):
        return self.text.count('\n', 0, position) + 1

    def lines(self, start, end):
        """The whole lines that hold [start, end)."""
        begin = self.text.rfind('\n', 0, start) + 1
        stop = self.text.find('\n', end)
        return self.text[begin:stop if stop >= 0 else len(self.text)]

    def at(self, i, *texts):
        return 0 <= i < len(self.tokens) and self.tokens[i].text in texts

    def spaced(self, i):
        """Whether blanks stand around a token, as around operators that take two sides."""
        token = self.tokens[i]
        return self.text[token.start - 1].isspace() and self.text[token.end].isspace()

    def _pairs(self):
        pair, waiting = {}, []
        for i, token in enumerate(self.tokens):
            if token.kind != 'op':
                continue
            if token.text in CLOSING.values():
                waiting.append(i)
            elif token.text in CLOSING and waiting:
                pair[waiting.pop()] = i
        return pair

    def _is_code(self, i):
        """Whether the '{' at i opens statements, not a type, a name space or a list of values."""
        return self.at(i - 1, ')', ';', '{', '}', ']', ':', 'else', 'do', 'const', 'noexcept', 'override', 'mutable')

    def _skip(self, i):
        return self.pair.get(i, i) + 1

    def _end(self, i):
        """Behind the ';' that ends the statement at i."""
        while i < len(self.tokens) and not self.at(i, ';', '}'):
            i = self._skip(i)
        return i + 1

    def _statements(self, opening):
        i, guarded = opening + 1, False
        while i < self.pair.get(opening, 0):
            token = self.tokens[i]
            if token.text in HEADERS:
                i += 2 if self.at(i + 1, 'constexpr') else 1
                i, guarded = self._skip(i), True
            elif token.text in ('else', 'do'):
                i, guarded = i + 1, True
            elif token.text in ('case', 'default'):
                while not self.at(i, ':'):
                    i += 1
                i += 1
            elif token.text in ('{', ';'):
                i, guarded = self._skip(i), False
            else:
                end = self._end(i)
                yield Statement(i, end, guarded)
                i, guarded = end, False

    def is_expression(self, statement):
        """Whether a statement is a call or an assignment, as against a declaration."""
        i = statement.first
        if self.tokens[i].text in NO_EXPRESSION or not self.at(statement.last - 1, ';'):
            return False
        while self.at(i, '*', '++', '--') or (self.at(i, '(') and self.at(i + 1, 'void')):
            i = self._skip(i)
        if self.at(i, '('):
            i = self._skip(i)
        elif i < statement.last and self.tokens[i].kind == 'name':
            i += 1
            while self.at(i, '::'):
                i += 2
        else:
            return False
        return self.at(i, '(', '.', '->', '[', '++', '--', ';', *ASSIGNMENTS) and i > statement.first
