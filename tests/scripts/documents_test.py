#!/usr/bin/env python3
"""The documents: each begins with what it is for and ends with where to go next, and every link leads somewhere.

usage: documents_test.py CHECKOUT
"""
import functools
import html
import pathlib
import re
import sys
import unittest
import urllib.parse

from markdown_it import MarkdownIt

CHECKOUT = pathlib.Path(sys.argv.pop()).resolve()
DOCS = CHECKOUT / "docs"
PAGES = sorted(DOCS.glob("*.md"))
# As long as it is read to its end by whoever is in a hurry.
LONGEST_README = 60
READERS = {"operators", "integrators", "contributors"}
IN_SOURCES_ALONE = re.compile(r"<!-- In the sources alone: begin -->.*<!-- In the sources alone: end -->", re.S)


@functools.cache
def tokens_of(text):
    return MarkdownIt("commonmark").enable("table").parse(text)


def parts_in(tokens):
    """Of texts all pieces: links, pictures and words."""
    return [part for token in tokens if token.type == "inline" for part in token.children]


def targets_in(text):
    parts = parts_in(tokens_of(text))
    return [part.attrs["href"] for part in parts if part.type == "link_open"] + \
           [part.attrs["src"] for part in parts if part.type == "image"]


def is_ours(target):
    return not urllib.parse.urlsplit(target).scheme


@functools.cache
def anchors_of(page):
    """As the web pages of repositories name the places of headings."""
    tokens = tokens_of(page.read_text())
    anchors = []
    for opening, title in zip(tokens, tokens[1:]):
        if opening.type != "heading_open":
            continue
        text = "".join(part.content for part in title.children)
        name = re.sub(r"[^\w\- ]", "", html.unescape(text).lower()).replace(" ", "-")
        anchors.append(name if name not in anchors else f"{name}-{anchors.count(name)}")
    return anchors


def where(page, target):
    """The file or folder that a link leads to, and the place in it."""
    path, _, anchor = target.partition("#")
    return (page.parent / urllib.parse.unquote(path)).resolve() if path else page, anchor


def headings(tokens):
    return [(opening.tag, title.content) for opening, title in zip(tokens, tokens[1:])
            if opening.type == "heading_open"]


class Documents(unittest.TestCase):
    def test_there_are_some(self):
        self.assertGreater(len(PAGES), 10)

    def test_begins_with_whom_it_is_for_and_what_for(self):
        for page in PAGES:
            with self.subTest(page.name):
                title, _, _, first, words = tokens_of(page.read_text())[:5]
                self.assertEqual((title.type, title.tag, first.type), ("heading_open", "h1", "paragraph_open"))
                begin = re.match(r"\*\*For ([^*:]+):\*\* \S", words.content)
                self.assertTrue(begin, words.content)
                named = set(re.split(r", | and ", begin[1]))
                self.assertTrue(named <= READERS, named)

    def test_has_one_title(self):
        for page in PAGES:
            with self.subTest(page.name):
                self.assertEqual([tag for tag, _ in headings(tokens_of(page.read_text()))].count("h1"), 1)

    def test_ends_with_where_to_go_next(self):
        for page in PAGES:
            with self.subTest(page.name):
                tokens = tokens_of(page.read_text())
                self.assertEqual(headings(tokens)[-1], ("h2", "Where to go next"))
                begin = max(place for place, token in enumerate(tokens) if token.type == "heading_open")
                behind = tokens[begin + 3:]
                self.assertEqual((behind[0].type, behind[-1].type), ("bullet_list_open", "bullet_list_close"))
                links = [part.attrs["href"] for part in parts_in(behind) if part.type == "link_open"]
                self.assertTrue(2 <= len(links) <= 5, links)
                # A list of links is a way on only when it leads away.
                self.assertFalse([link for link in links if link.startswith("#")])
                if page.name != "index.md":
                    self.assertEqual(links[-1], "index.md")

    def test_every_link_leads_somewhere(self):
        found = 0
        for page in [*PAGES, *CHECKOUT.glob("*.md")]:
            with self.subTest(page.name):
                for target in filter(is_ours, targets_in(page.read_text())):
                    found += 1
                    file, anchor = where(page, target)
                    self.assertTrue(file.exists(), target)
                    self.assertTrue(file.is_relative_to(CHECKOUT), target)
                    if anchor:
                        self.assertIn(anchor, anchors_of(file), target)
        self.assertGreater(found, 100)

    def test_index_has_every_page(self):
        index = DOCS / "index.md"
        text = index.read_text().partition("## Where to go next")[0]
        listed = sorted(where(index, target)[0] for target in targets_in(text))
        self.assertEqual(listed, sorted([*(page for page in PAGES if page != index), CHECKOUT / "CONTRIBUTING.md"]))

    def test_what_is_installed_leads_to_what_is_installed(self):
        layout = (CHECKOUT / "tests/consumer/installed/layout.txt").read_text().split("\n")
        installed = {CHECKOUT / line.partition(" ")[2] for line in layout if line.startswith("runtime ")}
        folders = {folder for file in installed for folder in file.parents}
        pages = [page for page in [*PAGES, CHECKOUT / "CHANGELOG.md"] if page in installed]
        self.assertIn(DOCS / "index.md", pages)
        for page in pages:
            with self.subTest(page.name):
                for target in filter(is_ours, targets_in(IN_SOURCES_ALONE.sub("", page.read_text()))):
                    self.assertIn(where(page, target)[0], installed | folders, target)

    def test_index_tells_which_pages_are_in_the_sources_alone(self):
        layout = (CHECKOUT / "tests/consumer/installed/layout.txt").read_text()
        index = DOCS / "index.md"
        alone = IN_SOURCES_ALONE.search(index.read_text())[0]
        told = {where(index, target)[0].name for target in targets_in(alone)}
        self.assertEqual(told, {page.name for page in [*PAGES, CHECKOUT / "CONTRIBUTING.md"]
                                if f" docs/{page.name}\n" not in layout})


class Versions(unittest.TestCase):
    package = re.search(r"^set\(CORVEL_PACKAGE_VERSION (\S+)\)$", (CHECKOUT / "CMakeLists.txt").read_text(), re.M)[1]

    def test_documents_name_the_packages_that_there_are(self):
        named = [(page.name, version) for page in PAGES
                 for version in re.findall(r"CorvelToolKit-(\d[\d.]*)-x64", page.read_text())]
        self.assertGreater(len(named), 2)
        self.assertEqual([each for each in named if each[1] != self.package], [])

    def test_change_log_begins_with_the_packages_version_and_falls_from_there(self):
        sections = re.findall(r"^## (\d+(?:\.\d+)*)\b", (CHECKOUT / "CHANGELOG.md").read_text(), re.M)
        self.assertEqual(sections[0], self.package)
        numbers = [tuple(map(int, version.split("."))) for version in sections]
        # A package that is no newer than the last one replaces no installation.
        self.assertEqual(numbers, sorted(set(numbers), reverse=True))


class Configuration(unittest.TestCase):
    """The keys that the library reads, where operators look for them."""

    keys = re.findall(r'L"(\[\w+\])", \w+Key', (CHECKOUT / "src/config/configparser.cpp").read_text())

    def test_there_are_keys(self):
        self.assertGreaterEqual(len(self.keys), 6)
        self.assertIn("[IPCTYPE]", self.keys)

    def test_each_key_has_a_part_with_default_example_and_what_goes_wrong(self):
        parts = re.split(r"^## ", (DOCS / "configuration.md").read_text(), flags=re.M)
        told = {part.partition("\n")[0]: part for part in parts if part.startswith("[")}
        self.assertEqual(sorted(told), sorted(self.keys))
        for key, part in told.items():
            with self.subTest(key):
                rows = dict(re.findall(r"^\| ([^|]+) \| (.+) \|$", part, re.M))
                self.assertEqual(list(rows)[-3:], ["default", "example", "what goes wrong"])
                self.assertTrue(rows["example"].startswith(f"`{key}="), rows["example"])

    def test_each_key_is_in_the_table_of_the_hosts_and_in_the_sample(self):
        hosts = (DOCS / "hosts.md").read_text()
        sample = (CHECKOUT / "hosts/CorvelConfig.ini").read_text()
        for key in self.keys:
            with self.subTest(key):
                self.assertIn(f"\n| `{key}` | ", hosts)
                self.assertRegex(sample, rf"(?m)^; .*\n{re.escape(key)}=")


class FrontPage(unittest.TestCase):
    text = (CHECKOUT / "README.md").read_text()

    def test_is_short(self):
        self.assertLessEqual(len(self.text.splitlines()), LONGEST_README)

    def test_shows_the_demo_and_the_two_commands(self):
        self.assertIn("docs/pictures/flash-demo.svg", targets_in(self.text))
        commands = [token.content for token in tokens_of(self.text) if token.type == "fence"]
        self.assertEqual(len(commands), 1)
        named = [line.split()[0] for line in commands[0].splitlines()]
        self.assertEqual(named, ["scripts/flash-demo", "scripts/test"])

    def test_its_picture_says_what_the_demo_says(self):
        """A label or a stage that was renamed needs a new picture: run scripts/demo-picture."""
        picture = (DOCS / "pictures/flash-demo.svg").read_text()
        lines = [html.unescape(line) for line in re.findall(r"<text[^>]*>([^<]*)</text>", picture)]
        program = CHECKOUT / "simulator/program"
        labels = re.findall(r'line\("([^"]+)",', (program / "report.cpp").read_text())
        stages = re.findall('"([^"]+)"', re.search(r"^std::string StageOf\(.*?^}", (program / "session.cpp").read_text(),
                                                   re.M | re.S)[0])
        shown = {match[1] for line in lines if (match := re.match(r"  (\S.{13}) \S", line))}
        self.assertGreater(len(shown), 5)
        self.assertLessEqual({label.strip() for label in shown}, set(labels))
        live = {line[:22].strip() for line in lines if re.search(r"\d %  .* attempt \d", line)}
        self.assertGreater(len(live), 3)
        self.assertLessEqual(live, set(stages))


if __name__ == "__main__":
    unittest.main()
