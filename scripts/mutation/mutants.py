# SPDX-License-Identifier: Apache-2.0
"""Small changes to a C++ source, found by a light tokenizer: what scripts/mutation/run tries out.

The tokenizer relies on the layout that .clang-format gives: binary operators stand between blanks, the
brackets of templates do not.
"""
import bisect
import collections
import re
import zlib

KINDS = {
    "comparison": "< to <= or >, == to !=, and so on",
    "constant": "an integer or a character, one more or one less",
    "float": "a floating-point number, changed by 1 %",
    "arithmetic": "+ to -, * to /, and back",
    "logic": "&& to ||, and back",
    "negation": "the condition of an if or a while, negated",
    "drop": "a call, an assignment or an early return, left out",
    "order": "two neighbouring statements, exchanged",
    "message": "one character of a text",
    "level": "ERROR, INFO or DEBUG of a log line, exchanged",
}
OPERATORS = {
    "comparison": {"<": ("<=", ">"), ">": (">=", "<"), "<=": ("<", ">="), ">=": (">", "<="),
                   "==": ("!=",), "!=": ("==",)},
    "arithmetic": {"+": ("-",), "-": ("+",), "*": ("/",), "/": ("*",), "+=": ("-=",), "-=": ("+=",)},
    "logic": {"&&": ("||",), "||": ("&&",)},
}
LEVELS = {"ERROR": "INFO", "INFO": "DEBUG", "DEBUG": "ERROR"}
ASSIGNMENTS = {"=", "+=", "-=", "*=", "/=", "|=", "&=", "^=", "<<=", ">>=", "++", "--"}
JUMPS = {"return", "break", "continue", "goto", "throw"}
NO_STATEMENTS = {"using", "typedef", "extern", "friend", "template", "if", "else", "for", "while"}
LABELS = {"case", "default", "public", "protected", "private"}
LOGS = re.compile(r"OLVEX_|perror|printf|puts")
COMPILE_TIME = {"static_assert", "OLVEX_LAYOUT_ASSERT", "alignas"}

TOKEN = re.compile(r"""
    (?P<skip>\s+|//[^\n]*|/\*.*?\*/|(?<![^\n])[ \t]*\#(?:\\\n|[^\n])*)
  | (?P<text>"(?:[^"\\]|\\.)*")
  | (?P<character>'(?:[^'\\]|\\.)+')
  | (?P<number>0[xX][0-9a-fA-F]+[uUlL]*|(?:\d+\.?\d*|\.\d+)(?:[eE][-+]?\d+)?[uUlLfF]*)
  | (?P<name>[A-Za-z_]\w*)
  | (?P<operator><<=|>>=|->|::|<<|>>|[-+*/%&|^<>=!]=|&&|\|\||\+\+|--|.)
""", re.VERBOSE | re.DOTALL)

Token = collections.namedtuple("Token", "kind text start end")
# A statement or what stands before a brace: where it begins and ends, and the function or class around it.
Segment = collections.namedtuple("Segment", "start end scope")
# The first and the last token of a statement, the blocks of the function around it, and the block.
Statement = collections.namedtuple("Statement", "first last depth block")
Mutant = collections.namedtuple("Mutant", "file kind start end new")


def tokens_of(source):
    found = [Token(m.lastgroup, m.group(), m.start(), m.end()) for m in TOKEN.finditer(source)
             if m.lastgroup != "skip"]
    kept, k = [], 0
    while k < len(found):
        if found[k].text in COMPILE_TIME:
            k = closing(found, k + 1)
        else:
            kept.append(found[k])
        k += 1
    return kept


def closing(tokens, opening):
    """Index of the bracket that closes the one at `opening`."""
    depth = 0
    for k in range(opening, len(tokens)):
        depth += {"(": 1, ")": -1}.get(tokens[k].text, 0)
        if depth == 0:
            return k
    raise ValueError("a bracket is not closed")


def brace_opens(header, around, in_brackets):
    """What a brace opens: "outer" (namespace, class), "block" of a function, or a "list" of values."""
    words = [token.text for token in header]
    if around == "list" or in_brackets or words[-1:] in (["="], [","], ["return"]):
        return "list"
    if "(" in words or words in ([], ["else"], ["do"]):
        return "block"
    return "outer" if {"namespace", "class", "struct", "enum", "union", "extern"} & set(words) else "list"


def statements_of(tokens):
    """The statements without nested blocks, inside functions."""
    found, braces, brackets, start, block = [], [], 0, 0, 0
    for k, token in enumerate(tokens):
        around = braces[-1] if braces else "outer"
        if token.text in "()":
            brackets += 1 if token.text == "(" else -1
        elif token.text == "{":
            braces.append(brace_opens(tokens[start:k], around, brackets > 0))
        elif token.text == "}":
            braces.pop()
        if token.text in "{}":
            if "list" not in (around, (braces or ["outer"])[-1]):
                start, block = k + 1, k
        elif token.text == ":" and tokens[start].text in LABELS:
            start = k + 1
        elif token.text == ";" and around != "list" and brackets == 0:
            if around == "block" and start < k:
                found.append(Statement(start, k, braces.count("block"), block))
            start = k + 1
    return found


def scope_of(header, opens):
    """The name that a brace gives to what it holds: of a function or a class, "" of everything else."""
    words = [token.text for token in header]
    if opens == "block" and "operator" in words:
        return "".join(words[words.index("operator"):words.index("(", words.index("operator") + 2)])
    if opens == "block":
        name = re.search(r"(?:[A-Za-z_]\w*(?: < [^()<>]* >)? :: )*(?:~ )?\w+$", " ".join(words[:words.index("(")]))
        return re.sub(r" < .*? >| ", "", name[0]) if name else ""
    keywords = [k for k, word in enumerate(words) if word in ("class", "struct", "union")]
    if opens == "outer" and keywords:
        end = words.index(":") if ":" in words else len(words)
        return [word for word in words[keywords[-1] + 1:end] if word != "final"][-1:][0]
    return ""


def segments_of(tokens):
    """The parts of a source between semicolons, labels and braces; those of lists of values do not count."""
    found, braces, brackets, start = [], [], 0, 0
    for k, token in enumerate(tokens):
        around = braces[-1][0] if braces else "outer"
        brackets += {"(": 1, ")": -1}.get(token.text, 0)
        scope = "::".join(name for _, name in braces if name) or "-"
        if token.text == "{":
            opens = brace_opens(tokens[start:k], around, brackets > 0)
            named = scope_of(tokens[start:k], opens) if around == "outer" else ""
            braces.append((opens, named))
            ends = opens != "list" and around != "list"
            if named:
                scope = "::".join(name for _, name in braces if name)
        elif token.text == "}":
            braces.pop()
            ends = around != "list"
        else:
            ends = around != "list" and brackets == 0 and (
                token.text == ";" or token.text == ":" and tokens[start].text in LABELS)
        if ends:
            last = k - 1 if token.text in "{}" else k
            if start <= last:
                found.append(Segment(tokens[start].start, tokens[last].end, scope))
            start = k + 1
    return found


def is_declaration(words):
    """A type, and a name after it."""
    if words[0] in ("const", "static", "auto", "struct", "unsigned"):
        return True
    k = 1
    while words[k] in ("::", "*", "&", "const", "<") or words[k - 1] == "::":
        if words[k] == "<":
            k = len(words) - 1 - words[::-1].index(">") if ">" in words else len(words) - 2
        k += 1
    return bool(re.match(r"[A-Za-z_]", words[k])) and words[k + 1] in ("=", ";", "(", "[", "{")


def shape_of(words):
    """What a statement does: "jump", "assignment", "call" or "" for everything else; and, of an
    assignment, what it writes."""
    if words[0] in JUMPS:
        return "jump", ""
    if words[0] == "delete":
        return "call", ""
    if words[0] in NO_STATEMENTS or is_declaration(words):
        return "", ""
    depth = 0
    for k, word in enumerate(words):
        depth += {"(": 1, "[": 1, ")": -1, "]": -1}.get(word, 0)
        if depth == 0 and word in ASSIGNMENTS:
            return "assignment", " ".join(words[:k] or words[1:-1])
    return ("call" if "(" in words else ""), ""


def swaps(first, second):
    """Whether the order of two statements may matter: both call, or one uses what the other writes."""
    (shape_a, target_a), (shape_b, target_b) = shape_of(first), shape_of(second)
    if not {shape_a, shape_b} <= {"call", "assignment"} or first == second:
        return False
    if shape_a == shape_b == "call":
        logs = [bool(LOGS.match(words[0])) for words in (first, second)]
        return all(logs) or not (any(logs) or are_alike(first, second))
    return (shape_a == "assignment" and uses(second, target_a)) or (shape_b == "assignment" and
                                                                    uses(first, target_b))


def are_alike(first, second):
    """Two calls of the same function with another first argument, which it works on."""
    (name_a, argument_a), (name_b, argument_b) = ((" ".join(words) + " ,").split(" ( ", 1)
                                                  for words in (first, second))
    return name_a == name_b and argument_a.split(" , ")[0] != argument_b.split(" , ")[0]


def uses(words, target):
    """The target itself, or the whole of what it is a part of."""
    text = f" {' '.join(words)} "
    root = re.escape(target.split()[0])
    return f" {target} " in text or "(" not in target and bool(re.search(rf" {root} (?![.\[]|->)", text))


def other_character(text):
    """A quoted text with one character changed, the same one every time; None without any to change."""
    body = text[1:-1]
    fixed = [m.span() for m in re.finditer(r"\\.|%[-+ #0-9.*]*(?:l|ll|z|h)?[a-zA-Z%]", body)]
    free = [k for k in range(len(body)) if not any(a <= k < b for a, b in fixed)]
    free = [k for k in free if body[k].isalpha()] or free
    if not free:
        return None
    k = free[zlib.crc32(text.encode()) % len(free)]
    new = chr(ord(body[k]) + 1) if body[k].isalpha() and body[k] not in "zZ" else "a"
    return f'"{body[:k]}{new}{body[k + 1:]}"'


def other_numbers(text):
    """("constant" or "float", the texts to put in a number's place)."""
    digits, suffix = re.fullmatch(r"(0[xX][0-9a-fA-F]+|[\d.]+(?:[eE][-+]?\d+)?)(\w*)", text).groups()
    if not re.search(r"[.eE]", digits) or digits[:2].lower() == "0x":
        octal = re.fullmatch(r"0\d+", digits)
        value = int(digits, 8 if octal else 0)
        values = [n for n in (value + 1, value - 1) if n >= 0]
        return "constant", [f"0{n:o}" if octal else f"{n}{suffix}" for n in values]
    new = f"{float(digits) * 1.01:.9g}" if float(digits) else "0.001"
    return "float", [(new if re.search(r"[.e]", new) else new + ".0") + suffix]


def joins_texts(tokens, k):
    """Whether the operator puts texts together: there is no other one that would compile."""
    behind = [token.text for token in tokens[k + 1:k + 4]]
    return "text" in (tokens[k - 1].kind, tokens[k + 1].kind) or behind == ["std", "::", "to_string"]


def token_mutants(source, tokens):
    for k, token in enumerate(tokens):
        stands_free = source[token.start - 1].isspace() and source[token.end:token.end + 1].isspace() and \
            tokens[k - 1].text != ">"
        for kind, table in OPERATORS.items():
            if token.text in table and stands_free and not (kind == "arithmetic" and joins_texts(tokens, k)):
                yield from ((kind, token.start, token.end, new) for new in table[token.text])
        if token.kind == "number":
            kind, numbers = other_numbers(token.text)
            yield from ((kind, token.start, token.end, new) for new in numbers)
        elif token.kind == "character" and len(token.text) == 3:
            yield "constant", token.start, token.end, f"'{chr(ord(token.text[1]) + 1)}'"
        elif token.kind == "text" and tokens[k - 1].text != "extern" and other_character(token.text):
            yield "message", token.start, token.end, other_character(token.text)
        elif re.fullmatch(r"OLVEX_(TAG_)?(ERROR|INFO|DEBUG)(_FORMAT)?", token.text):
            level = next(level for level in LEVELS if level in token.text)
            yield "level", token.start, token.end, token.text.replace(level, LEVELS[level])
        elif token.text in ("if", "while") and tokens[k + 1].text == "(":
            begin, end = tokens[k + 1].start, tokens[closing(tokens, k + 1)].end
            yield "negation", begin, end, f"(!{source[begin:end]})"


def statement_mutants(source, tokens):
    last = None
    for statement in statements_of(tokens):
        words = [token.text for token in tokens[statement.first:statement.last + 1]]
        begin, end = tokens[statement.first].start, tokens[statement.last].end
        shape = shape_of(words)[0]
        # The last return of a function stays: without it the result is undefined.
        if shape in ("call", "assignment") or (shape == "jump" and statement.depth > 1):
            yield "drop", begin, end, ";" + "\n" * source.count("\n", begin, end)
        if last and (last[0].last + 1, last[0].block) == (statement.first, statement.block) and \
                swaps(last[1], words):
            between = source[tokens[last[0].last].end:begin]
            first = source[tokens[last[0].first].start:tokens[last[0].last].end]
            yield "order", tokens[last[0].first].start, end, source[begin:end] + between + first
        last = (statement, words)


def mutants_of(file, source):
    tokens = tokens_of(source)
    return sorted(Mutant(file, *change) for change in
                  [*token_mutants(source, tokens), *statement_mutants(source, tokens)])


def without_comments(source):
    """The source with blanks in the place of comments and directives."""
    return TOKEN.sub(lambda m: re.sub(r"[^\n]", " ", m[0]) if m.lastgroup == "skip" else m[0], source)


def bare(text):
    """A text without the blanks that no compiler needs: layout does not count."""
    return re.sub(r"(?<!\w)\s+|\s+(?!\w)", "", text)


class Places:
    """Says of the changes of one source where they stand, in words that a move or another layout leaves
    as they are: the function or class, and the statement."""

    def __init__(self, source):
        self.code = without_comments(source)
        self.segments = segments_of(tokens_of(source))
        self.starts = [segment.start for segment in self.segments]
        self.keys = [(s.scope, bare(self.code[s.start:s.end])) for s in self.segments]

    def describe(self, mutant):
        """The scope, the statement before and the one after, with as many above as make it the only one."""
        first = max(bisect.bisect_right(self.starts, mutant.start) - 1, 0)
        last = max(bisect.bisect_right(self.starts, mutant.end - 1) - 1, 0)
        while first > 0 and self.occurrences(self.keys[first:last + 1]) > 1:
            first -= 1
        begin, end = self.segments[first].start, max(self.segments[last].end, mutant.end)
        after = self.code[begin:mutant.start] + without_comments(mutant.new) + self.code[mutant.end:end]
        before = " ".join(self.code[begin:end].split())
        return self.segments[last].scope, before, " ".join(after.split())

    def occurrences(self, keys):
        return sum(1 for k in range(len(self.keys) - len(keys) + 1) if self.keys[k:k + len(keys)] == keys)


def apply(mutant, source):
    return source[:mutant.start] + mutant.new + source[mutant.end:]


def line_number(mutant, source):
    return source.count("\n", 0, mutant.start) + 1
