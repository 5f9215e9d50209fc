"""A PowerShell script taken apart, without a PowerShell: its code, its texts, its variables."""
import re

CLOSING = {"(": ")", "[": "]", "{": "}"}
# What the shell itself sets or looks at.
AUTOMATIC = {"_", "args", "true", "false", "null", "psscriptroot", "lastexitcode", "erroractionpreference", "matches"}


class BadScript(Exception):
    """It would not be parsed."""


class Script:
    """Raises BadScript unless each text, comment and bracket ends."""

    def __init__(self, text):
        self.text = text
        self.at = 0
        self.texts = []
        self.code = self._read(None)

    def _fail(self, what):
        raise BadScript(f"line {self.text.count(chr(10), 0, self.at) + 1}: {what}")

    def _read(self, closing):
        """Code to the bracket that ends it, or to the end, with '' for each text."""
        code = ""
        while self.at < len(self.text):
            letter = self.text[self.at]
            if letter == closing:
                self.at += 1
                return code + letter
            if letter in CLOSING:
                self.at += 1
                code += letter + self._read(CLOSING[letter])
            elif letter in CLOSING.values():
                self._fail(f"{letter} ends nothing")
            elif letter in "'\"" or self.text[self.at:self.at + 2] in ("@'", '@"'):
                code += "''" + self._read_text()
            elif self.text.startswith("<#", self.at):
                self._skip_to("#>")
            elif letter == "#":
                self.at = (self.text + "\n").index("\n", self.at)
            else:
                taken = 2 if letter == "`" else 1
                code += self.text[self.at:self.at + taken]
                self.at += taken
        if closing is not None:
            self._fail(f"{closing} is missing")
        return code

    def _skip_to(self, end):
        found = self.text.find(end, self.at)
        if found < 0:
            self._fail(f"{end} is missing")
        self.at = found + len(end)

    def _read_text(self):
        """Code within a text, such as "$name" and "$(...)", which is code all the same."""
        begin = self.at
        if self.text[begin] == "@":
            quote = self.text[begin + 1]
            if not re.match(r"[ \t]*\n", self.text[begin + 2:]):
                self._fail("a text in lines begins in a line of its own")
            self._skip_to("\n" + quote + "@")
            body = self.text[begin + 2:self.at - 3]
            self.texts.append(body.partition("\n")[2])
            return self._names_in(body) if quote == '"' else ""
        quote = self.text[begin]
        self.at += 1
        code, body = "", ""
        while self.at < len(self.text):
            letter = self.text[self.at]
            if letter == quote and self.text[self.at + 1:self.at + 2] != quote:
                self.at += 1
                self.texts.append(body)
                return code + (self._names_in(body) if quote == '"' else "")
            if quote == '"' and self.text.startswith("$(", self.at):
                self.at += 2
                code += " " + self._read(")")[:-1]
                continue
            taken = 2 if letter == quote or (letter == "`" and quote == '"') else 1
            body += quote if letter == quote else self.text[self.at:self.at + taken]
            self.at += taken
        self.at = begin
        return self._fail("a text does not end")

    @staticmethod
    def _names_in(body):
        return "".join(" " + name for name in re.findall(r"(?<!`)\$(?:\w+:)?\w+", body))

    def unset_variables(self):
        """Those that are read and never written."""
        code = self.code.lower()
        read = {name for scope, name in re.findall(r"\$(\w+:)?(\w+)", code) if scope != "env:"}
        written = set(AUTOMATIC)
        # "$a = ", "$a, $b = ", "$a++", "foreach ($a in", and parameters, which stand behind a type or alone.
        for names in re.findall(r"((?:\$\w+\s*,\s*)*\$\w+)\s*(?:[-+]?=(?!=)|\+\+|\bin\b)", code):
            written.update(re.findall(r"\$(\w+)", names))
        for parameters in re.findall(r"(?:\bparam\s*|\bfunction [\w-]+\s*)\(((?:[^()]|\([^()]*\))*)\)", code):
            written.update(re.findall(r"\$(\w+)", parameters))
        return read - written

    def called(self):
        """Names of functions and commands: Verb-Noun."""
        return set(re.findall(r"(?<![\w$.\\-])[A-Z][a-z]+-[A-Z]\w*", self.code)) | self.defined()

    def defined(self):
        return set(re.findall(r"\bfunction ([\w-]+)", self.code))
