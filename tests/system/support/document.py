"""The project's documents: their sections, and the code blocks in them, which tests run."""

import re
from pathlib import Path

PROJECT = Path(__file__).resolve().parents[3]

_HEADING = re.compile(r"^(#+) (.*)$", re.M)
_BLOCK = re.compile(r"^```(\w*)\n(.*?)^```$", re.S | re.M)


class Document:
    def __init__(self, name):
        self.path = PROJECT / name
        self.text = self.path.read_text()

    def section(self, heading):
        """The text below the heading, up to the next heading of any depth."""
        text = _BLOCK.sub(lambda block: re.sub("^#", "\0", block.group(), flags=re.M), self.text)
        pieces = _HEADING.split(text)
        found = [pieces[i + 2] for i in range(0, len(pieces) - 2) if i % 3 == 1 and pieces[i + 1] == heading]
        assert len(found) == 1, f"{heading!r} is {len(found)} times in {self.path}"
        return found[0].replace("\0", "#")

    def blocks(self, heading, language):
        return [text for name, text in _BLOCK.findall(self.section(heading)) if name == language]

    def block(self, heading, language, starting=""):
        """The one block of the section in this language, or the one of them that starts so."""
        found = [text for text in self.blocks(heading, language) if text.startswith(starting)]
        assert len(found) == 1, f"{len(found)} such blocks below {heading!r} in {self.path}"
        return found[0]

    def anchors(self):
        """What a link may name after `#`: each heading in lower case, with dashes, without marks."""
        headings = _HEADING.findall(_BLOCK.sub("", self.text))
        return {re.sub(r"[^\w\- ]", "", text.lower()).replace(" ", "-") for _, text in headings}

    def links(self):
        """The targets that are no URLs, as pairs of file name and anchor, either of which may be empty."""
        targets = re.findall(r"\]\(([^)\s]+)\)", _BLOCK.sub("", self.text))
        return [(file, anchor) for file, _, anchor in (target.partition("#") for target in targets)
                if "://" not in file]
