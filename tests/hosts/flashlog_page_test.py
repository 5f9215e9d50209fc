#!/usr/bin/env python3
"""The page of corvel_flashlog in a browser: clicks, filters, keys, widths, and a log of 200 MB.

usage: flashlog_page_test.py [--pictures] PICTURES SAMPLE PROGRAM WORD ...
  PICTURES     folder of the documentation's pictures
  --pictures   only take those of the page
"""
import base64
import json
import pathlib
import random
import re
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

arguments = sys.argv[1:]
ONLY_PICTURES = arguments[:1] == ["--pictures"]
PICTURES, SAMPLE, *PROGRAM = [str(pathlib.Path(word).absolute()) for word in (arguments[1:] if ONLY_PICTURES else arguments)]

BROWSER_OPTIONS = ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                   "--disable-background-networking", "--disable-component-update", "--disable-sync",
                   "--hide-scrollbars"]
SMALL_LOG = 20_000_000
BIG_LOG = 200_000_000
BIGGEST_PAGE = 5_000_000
# The table of ten times the log needs more memory for its flashes alone.
MOST_MORE_MEMORY = 4_000_000
# Of a picture's small squares, how many may look otherwise: another release of the browser or of a font.
MOST_OTHER_SQUARES = 0.002
HOSTILE = b"</script><script>window.broken=1</script><img src=x onerror='window.broken=2'>&amp;"


def record(seconds, level, function, message, thread=20):
    clock = time.strftime("%H:%M:%S", time.gmtime(seconds)).encode()
    return b"#2026-11-15\t%s.000\t10~%d\tFlashSvc\t%s\tsource.cpp\t7\t%s\t%s##\r\n" % (
        clock, thread, level, function, message)


class Browser:
    """Chromium with a profile of its own, and the pages that it shows."""

    def __init__(self):
        self.folder = pathlib.Path(tempfile.mkdtemp())
        options = webdriver.ChromeOptions()
        for option in [*BROWSER_OPTIONS, f"--user-data-dir={self.folder / 'profile'}"]:
            options.add_argument(option)
        options.binary_location = "/usr/bin/chromium"
        options.set_capability("goog:loggingPrefs", {"browser": "ALL", "performance": "ALL"})
        self.driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
        self.driver.set_script_timeout(60)

    def close(self):
        self.driver.quit()
        shutil.rmtree(self.folder, ignore_errors=True)

    def make(self, *logs, name="page.html", words=()):
        page = self.folder / name
        subprocess.run([*PROGRAM, "--html", page, *words, *logs], check=True, timeout=300, capture_output=True,
                       cwd=self.folder)
        return page

    def show(self, page, width=1280, height=1000, dark=False, media=""):
        command = self.driver.execute_cdp_cmd
        command("Emulation.setEmulatedMedia", {
            "media": media,
            "features": [{"name": "prefers-color-scheme", "value": "dark" if dark else "light"},
                         {"name": "prefers-reduced-motion", "value": "reduce"}]})
        command("Emulation.setDeviceMetricsOverride",
                {"width": width, "height": height, "deviceScaleFactor": 1, "mobile": False})
        self.driver.get(page.as_uri())

    def log(self, text, name):
        path = self.folder / name
        path.write_bytes(text)
        return path


class PageTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.browser = Browser()
        cls.sample = cls.browser.make(SAMPLE)

    @classmethod
    def tearDownClass(cls):
        cls.browser.close()

    def setUp(self):
        self.driver = self.browser.driver
        self.driver.get_log("browser")
        self.driver.get_log("performance")

    def tearDown(self):
        self.assertEqual([entry["message"] for entry in self.driver.get_log("browser")], [])

    # What the tests say.

    def show(self, page=None, **how):
        self.browser.show(page or self.sample, **how)

    def all(self, selector):
        return self.driver.find_elements(By.CSS_SELECTOR, selector)

    def one(self, selector):
        return self.driver.find_element(By.CSS_SELECTOR, selector)

    def press(self, *keys):
        self.driver.switch_to.active_element.send_keys(*keys)

    def script(self, text, *values):
        return self.driver.execute_script(text, *values)

    def texts(self):
        return self.script("return [...document.querySelectorAll('.record .what')].map(e => e.textContent)")

    def is_seen(self, element):
        return self.script("const box = arguments[0].getBoundingClientRect();"
                           "return box.top >= 0 && box.top < innerHeight", element)

    def colour(self, selector):
        return self.one(selector).value_of_css_property("background-color")

    # Its look.

    def test_each_flash_has_its_card_and_its_row(self):
        self.show()
        self.assertEqual(len(self.all(".job")), 3)
        self.assertEqual([badge.text for badge in self.all("#overview .badge")], ["succeeded", "succeeded", "failed"])
        self.assertIn("3 flashes, 1 not good", self.one("#summary").text)

    def test_what_ended_a_flash_stands_before_what_it_began_with(self):
        self.show()
        ending, first = [reason.text for reason in self.all(".job:last-of-type .reason")]
        self.assertTrue(ending.startswith("Failed by"), ending)
        self.assertIn("Wait Modem re-arrival timeout", ending)
        self.assertIn("the modem was not back within 23 s", ending)
        self.assertIn("Ask for the flash again", ending)
        self.assertTrue(first.startswith("First error"), first)
        self.assertIn("Could not download file", first)
        self.assertNotIn("Copy the images again", first)
        self.assertIn("the modem was not back within 23 s", self.one("#overview tbody tr:last-child .why").text)

    def test_an_error_that_began_and_ended_a_flash_is_told_once(self):
        log = self.browser.log(record(1, b"Trace", b"ToolKit::MonitorFlashReadyFlag", b"flash flag changed to 1") +
                               record(2, b"Error", b"A::B", b"went wrong") +
                               record(3, b"Trace", b"ToolKit::SetFlashResult", b"WriteRegistry Flash_Result: 3"), "one.log")
        self.show(self.browser.make(log, name="one.html"))
        reason, = [reason.text for reason in self.all(".job .reason")]
        self.assertTrue(reason.startswith("Failed by"), reason)

    def test_a_flash_that_no_error_ended_is_told_by_its_stage(self):
        text = re.sub(rb"#[^#]*Wait Modem re-arrival timeout[^#]*##\r\n", b"", pathlib.Path(SAMPLE).read_bytes())
        self.show(self.browser.make(self.browser.log(text, "words.log"), name="words.html"))
        ending = self.one(".job:last-of-type .reason")
        self.assertIn("awaiting the modem ended after 23.0 s of 23 s", ending.text)
        self.assertIn("Ask for the flash again", ending.text)
        ending.find_element(By.CSS_SELECTOR, "button").click()
        self.assertIn("WaitForMBIMRearrivedImplementation ++", self.one(".record.chosen").text)

    def test_a_timeline_has_stages_attempts_marks_limits_and_a_curve(self):
        self.show()
        card = self.all(".job")[2]
        count = lambda selector: len(card.find_elements(By.CSS_SELECTOR, selector))
        self.assertEqual(count(".attempt"), 3)
        self.assertEqual(count(".attempt.failed"), 2)
        self.assertGreater(count(".stage"), 15)
        self.assertGreater(count(".item.mark.error"), 3)
        self.assertEqual(count(".item.mark.retry"), 3)
        self.assertEqual(count(".item.mark.reset"), 1)
        self.assertGreaterEqual(count("line.limit"), 2)
        self.assertEqual(count(".curve"), 1)

    def test_a_good_flash_shows_its_time_limits(self):
        self.show()
        card = self.all(".job")[1]
        spare = self.script("return [...arguments[0].querySelectorAll('line.limit.spare title')].map((e) => e.textContent)", card)
        self.assertIn("Time limit of booting: 10 s", spare)
        inside = self.script("const job = jobs[1]; return limitsOf(job).filter(({when}) => when <= job.length * 1.02).length")
        self.assertEqual(len(card.find_elements(By.CSS_SELECTOR, "line.limit")), inside)
        self.assertIn("time limit", card.find_element(By.CSS_SELECTOR, ".legend").text)

    def test_light_and_dark_differ_and_print_hides_the_filters(self):
        self.show()
        light = self.colour("body")
        self.assertTrue(self.one("#filters").is_displayed())
        self.show(dark=True)
        self.assertNotEqual(self.colour("body"), light)
        self.show(media="print")
        self.assertFalse(self.one("#filters").is_displayed())
        self.assertTrue(self.one(".timeline svg").is_displayed())

    def test_print_is_light_whatever_the_system_is(self):
        looks = []
        for dark in (False, True):
            self.show(media="print", dark=dark)
            looks.append(self.script(
                "return [...document.querySelectorAll('body, .job, .badge, .reason, .record, .record .who, .swatch, td')].map("
                "(element) => { const look = getComputedStyle(element);"
                "return [element.className, look.color, look.backgroundColor, look.borderColor, look.colorScheme].join(' '); })"))
        self.assertEqual(looks[0], looks[1])

    def test_print_opens_the_tables_and_tells_what_is_not_printed(self):
        self.show()
        self.one("input[value=trace]").click()
        # Once the page is laid out for the paper: what stands on it.
        self.script("matchMedia('print').addEventListener('change', (print) => { if (print.matches) window.paper = {"
                    "open: document.querySelectorAll('.job details[open]').length,"
                    "said: document.getElementById('printed').textContent,"
                    "stages: [...document.querySelectorAll('.job:last-of-type .stages tbody tr')].map((row) => row.innerText),"
                    "text: document.body.innerText}; })")
        pdf = base64.b64decode(self.driver.execute_cdp_cmd("Page.printToPDF", {})["data"])
        self.assertTrue(pdf.startswith(b"%PDF"))
        self.assertGreater(len(re.findall(rb"/Type\s*/Page\b", pdf)), 2)
        paper = self.script("return window.paper")
        self.assertEqual(paper["open"], 3)
        self.assertIn("400 of these 1\u202f114 records are printed", paper["said"])
        self.assertIn(paper["said"], paper["text"])
        self.assertNotIn("Show the record", paper["text"])
        self.assertNotIn("Clear", paper["text"])
        names = [row.split("\t")[0].strip() for row in paper["stages"]]
        self.assertEqual(names[:2], ["looking for images", "preparing"])
        self.assertTrue(all(names), names)
        self.assertEqual(len(self.all(".job details[open]")), 0)
        self.assertFalse(self.one("#printed").is_displayed())
        self.show(media="print")
        self.script("document.getElementById('printed').textContent = 'so many'")
        self.assertTrue(self.one("#printed").is_displayed())

    def test_print_says_nothing_of_records_when_all_are_there(self):
        self.show()
        self.script("addEventListener('beforeprint', () => "
                    "{ window.said = document.getElementById('printed').textContent; })")
        self.driver.execute_cdp_cmd("Page.printToPDF", {})
        self.assertEqual(self.script("return window.said"), "")

    def test_the_pictures_of_the_documentation_show_the_page(self):
        for name, picture in pictures(self.browser):
            kept = base64.b64encode(pathlib.Path(PICTURES, name).read_bytes()).decode()
            self.driver.get("about:blank")
            other = self.driver.execute_async_script(SHARE_OF_OTHER_SQUARES, kept, picture)
            self.assertLessEqual(other, MOST_OTHER_SQUARES, f"{name} no longer shows the page: --pictures takes it anew")

    def test_no_width_needs_sideways_scrolling(self):
        for width in (320, 420, 800, 1280, 1900):
            self.show(width=width)
            wide = self.script("return document.documentElement.scrollWidth")
            self.assertLessEqual(wide, width)

    def test_nothing_is_loaded_from_anywhere(self):
        self.show()
        asked = [json.loads(entry["message"])["message"] for entry in self.driver.get_log("performance")]
        urls = {event["params"]["request"]["url"] for event in asked if event["method"] == "Network.requestWillBeSent"}
        self.assertEqual({url for url in urls if not url.startswith("data:")}, {self.sample.as_uri()})

    # From the timeline to the records and back.

    def test_a_stage_leads_to_its_record_and_the_record_back(self):
        self.show()
        card = self.all(".job")[2]
        stage = next(item for item in card.find_elements(By.CSS_SELECTOR, ".item.stage")
                     if "writing, attempt 3" in item.get_attribute("aria-label"))
        self.script("arguments[0].dispatchEvent(new MouseEvent('click', {bubbles: true}))", stage)
        chosen = self.one(".record.chosen")
        self.assertEqual(chosen.get_attribute("data-offset"), stage.get_attribute("data-offset"))
        self.assertIn("BootDeviceInFirmwareMode OK", chosen.text)
        self.assertTrue(self.is_seen(chosen))

        chosen.find_element(By.CSS_SELECTOR, "button").click()
        focused = self.driver.switch_to.active_element
        self.assertEqual(focused.get_attribute("data-offset"), chosen.get_attribute("data-offset"))
        self.assertTrue(self.is_seen(card))
        self.assertEqual(len(card.find_elements(By.CSS_SELECTOR, ".cursor")), 1)

    def test_the_reason_leads_to_its_record_with_its_advice(self):
        self.show()
        self.one(".job:last-of-type .reason.first button").click()
        details = self.one(".record.chosen .more").text
        self.assertIn("What to do: Copy the images again", details)
        self.assertIn("Byte ", details)

    def test_a_filtered_record_is_shown_when_the_timeline_leads_to_it(self):
        self.show()
        self.one("#filter-text").send_keys("no record says this")
        self.assertEqual(self.texts(), [])
        self.one(".job:last-of-type .reason.first button").click()
        self.assertIn("Could not download file", self.one(".record.chosen").text)

    # Filters.

    def test_traces_are_shown_when_they_are_asked_for(self):
        self.show()
        before = len(self.texts())
        self.one("input[value=trace]").click()
        self.assertGreater(len(self.texts()), before)
        self.assertEqual(self.one("#count").text.replace("\u202f", ""), "1114 records of 1114 shown")

    def test_levels_filter(self):
        self.show()
        for level in ("warning", "stage", "flaw"):
            self.one(f"input[value={level}]").click()
        levels = {element.text for element in self.all(".record .level")}
        self.assertEqual(levels, {"error"})

    def test_text_filters_messages_and_functions(self):
        self.show()
        self.one("input[value=trace]").click()
        self.one("#filter-text").send_keys("FLASH PORT FOUND")
        self.assertEqual(len(self.texts()), 5)
        self.one("#filter-text").clear()
        self.one("#filter-text").send_keys("ControlBBrst")
        self.assertTrue(self.texts())
        self.assertTrue(all("BB_RST" in text or "ControlBBrst" in text for text in self.texts()))

    def test_times_filter_and_a_wrong_one_is_told(self):
        self.show()
        self.one("#filter-from").send_keys("06:27:46")
        self.one("#filter-to").send_keys("06:27:46")
        times = [element.text for element in self.all(".record .when")]
        self.assertTrue(times)
        self.assertTrue(all(text.startswith("06:27:46.") for text in times))
        for end in ("06:27:46,100", "06:27:46.100"):
            self.one("#filter-to").clear()
            self.one("#filter-to").send_keys(end)
            self.assertEqual({element.text for element in self.all(".record .when")},
                             {text for text in times if text <= "06:27:46.100"})
        self.one("#filter-from").clear()
        self.one("#filter-from").send_keys("quarter to six")
        self.assertEqual(self.one("#filter-from").get_attribute("aria-invalid"), "true")

    def test_times_filter_over_midnight(self):
        hours = ("22:00", "23:50", "23:59", "00:00", "00:10", "00:11", "12:00")
        log = self.browser.log(b"".join(record(0, b"Error", b"A::B", hour.encode()).replace(b"00:00:00", hour.encode() + b":30")
                                        for hour in hours), "midnight.log")
        self.show(self.browser.make(log, name="midnight.html"))
        self.one("#filter-from").send_keys("23:50")
        self.one("#filter-to").send_keys("00:11")
        self.assertEqual(self.texts(), ["23:50", "23:59", "00:00", "00:10"])
        self.one("#filter-from").clear()
        self.one("#filter-from").send_keys("2026-11-15 23:50")
        self.assertEqual(self.texts(), [])

    def test_threads_and_flashes_filter(self):
        self.show()
        self.one("input[value=trace]").click()
        thread = self.all("#filter-thread option")[2]
        thread.click()
        self.assertEqual({element.text for element in self.all(".record .who")}, {thread.text})
        self.press(Keys.ESCAPE)
        self.assertEqual(self.one("#filter-thread").get_attribute("value"), "")
        self.assertGreater(len({element.text for element in self.all(".record .who")}), 1)
        self.all("#filter-job option")[1].click()
        times = [element.text for element in self.all(".record .when")]
        self.assertTrue(times)
        self.assertTrue(all(text < "06:26:55" for text in times))

    def test_of_many_threads_the_newest_and_those_of_a_flash_are_listed(self):
        flashes = [record(2 * i, b"Trace", b"ToolKit::MonitorFlashReadyFlag", b"flash flag changed to 1", thread=10_000 + i) +
                   record(2 * i + 1, b"Trace", b"ToolKit::DeleteFLSFiles", b"DeleteFLSFiles --", thread=20_000 + i)
                   for i in range(300)]
        self.show(self.browser.make(self.browser.log(b"".join(flashes), "threads.log"), name="threads.html"))
        listed = lambda: [option.text for option in self.all("#filter-thread option")]
        self.assertEqual(listed()[:3], ["all", "100 older ones are listed with their flash", "10~10050"])
        self.assertEqual(listed()[-1], "10~20299")
        self.assertEqual(len(listed()), 502)
        self.one("#filter-thread option:last-child").click()
        self.assertEqual([element.text for element in self.all(".record .who")], ["10~20299"])
        # The thread that was chosen has nothing to say of another flash.
        self.all("#filter-job option")[1].click()
        self.assertEqual(listed(), ["all", "10~10000", "10~20000"])
        self.assertEqual(self.one("#filter-thread").get_attribute("value"), "")
        self.assertEqual({element.text for element in self.all(".record .who")}, {"10~10000", "10~20000"})
        self.press(Keys.ESCAPE)
        self.assertEqual(len(listed()), 502)

    # Keys.

    def test_keys_go_through_errors_and_records(self):
        self.show()
        self.one("body").send_keys("n")
        first = self.one(".record.chosen")
        self.assertIn("Timeout in waiting for flash channel", first.text)
        self.press("n")
        self.assertIn("Cannot get flash", self.one(".record.chosen").text)
        self.press("p")
        self.assertEqual(self.one(".record.chosen").get_attribute("id"), first.get_attribute("id"))
        self.script("document.getElementById('list').focus()")
        self.press(Keys.ARROW_DOWN)
        self.assertNotEqual(self.one(".record.chosen").get_attribute("id"), first.get_attribute("id"))
        self.press("t")
        self.assertIn("item", self.driver.switch_to.active_element.get_attribute("class"))
        self.press("/")
        self.assertEqual(self.driver.switch_to.active_element.get_attribute("id"), "filter-text")

    def test_keys_go_on_beside_a_record_that_is_filtered_out(self):
        self.show()
        self.script("goToRecord(recordAt(0, jobs[2].reason))")
        chosen = self.script("return chosen.index")
        self.script("document.getElementById('filter-text').value = 'flash'; applyFilter(null)")
        self.assertFalse(self.script("return shown.includes(chosen)"))
        errors = self.script("return shown.filter((record) => record.level === 'error' && !isHarmless(record)).map((r) => r.index)")
        self.press("p")
        self.assertEqual(self.script("return chosen.index"), max(index for index in errors if index < chosen))
        self.script("document.getElementById('filter-text').value = ''; applyFilter(null); choose(records[arguments[0]], false);"
                    "document.getElementById('filter-text').value = 'flash'; applyFilter(null)", chosen)
        self.press("n")
        self.assertEqual(self.script("return chosen.index"), min(index for index in errors if index > chosen))

    def test_arrows_go_through_a_timeline_and_enter_opens(self):
        self.show()
        first = self.one(".job .item[tabindex='0']")
        self.script("arguments[0].focus()", first)
        self.press(Keys.ARROW_RIGHT, )
        second = self.driver.switch_to.active_element
        self.assertNotEqual(second.get_attribute("aria-label"), first.get_attribute("aria-label"))
        self.press(Keys.ENTER)
        self.assertEqual(self.one(".record.chosen").get_attribute("data-offset"), second.get_attribute("data-offset"))

    # Logs that are not as they should be, and many of them.

    def test_what_is_not_in_order_is_shown(self):
        log = self.browser.log(record(1, b"Trace", b"A::B", b"good") + b"foreign line\r\n" +
                               record(2, b"Trace", b"A::B", b"half")[:-6] + b"\r\n" +
                               record(3, b"Error", b"A::B", b"x" * 100_000), "bad.log")
        self.show(self.browser.make(log, name="bad.html"))
        self.assertIn("1 foreign line, 1 truncated record, 1 overlong record", self.one("#flaws").text)
        self.assertEqual([element.text for element in self.all(".record.flaw .level")], ["foreign", "truncated", "cut"])

    def test_what_a_log_says_is_never_markup(self):
        log = self.browser.log(record(1, b"Error", HOSTILE, HOSTILE) + HOSTILE + b"\r\n", "hostile.log")
        self.show(self.browser.make(log, name="hostile.html"))
        self.assertIsNone(self.script("return window.broken || null"))
        self.assertEqual(self.texts(), [HOSTILE.decode()] * 2)

    def test_a_log_that_begins_anew_while_it_is_followed_keeps_its_places(self):
        sample = pathlib.Path(SAMPLE).read_bytes()
        log = self.browser.log(sample, "anew.log")
        page = self.browser.folder / "anew.html"
        with subprocess.Popen([*PROGRAM, "--follow", "--html", page, log], stdin=subprocess.DEVNULL,
                              stdout=subprocess.DEVNULL) as program:
            self.await_flashes(page, 3)
            log.write_bytes(sample[:-1])
            self.await_flashes(page, 6)
            program.kill()
        self.show(page)
        self.assertEqual(len(self.all(".job .reason.mild")), 4)
        for card in (2, 5):
            reason = self.all(".job")[card].find_element(By.CSS_SELECTOR, ".reason.first")
            self.assertIn("Could not download file", reason.text)
            reason.find_element(By.CSS_SELECTOR, "button").click()
            chosen = self.one(".record.chosen")
            self.assertIn("Could not download file", chosen.text)
            byte = int(re.search(r"Byte ([\d\u202f]+)", chosen.text)[1].replace("\u202f", ""))
            self.assertIn(b"Could not download file", sample[byte:].split(b"##", 1)[0])
            self.assertEqual("before it began anew" in chosen.text, card == 2)
            chosen.find_element(By.CSS_SELECTOR, "button").click()
            self.assertTrue(self.is_seen(self.all(".job")[card]))

    def await_flashes(self, page, count):
        end = time.monotonic() + 60
        while time.monotonic() < end:
            if page.exists() and f'"number":{count},' in page.read_text():
                return
            time.sleep(0.1)
        self.fail(f"the page never had {count} flashes")

    def test_an_empty_log_says_so(self):
        self.show(self.browser.make(self.browser.log(b"", "empty.log"), name="empty.html"))
        self.assertIn("There is no flash in it.", self.one("#jobs").text)

    def fleet(self, count):
        logs = [self.browser.log(pathlib.Path(SAMPLE).read_bytes(), f"pc-{number + 1}.log") for number in range(count)]
        return self.browser.make(*logs, name=f"fleet-{count}.html")

    def card(self, log, flash):
        return next(card for card in self.all(".job") if card.get_attribute("aria-label").endswith(f"{log}, flash {flash}"))

    def test_logs_of_a_fleet_stand_side_by_side(self):
        self.show(self.fleet(2), width=1500)
        self.assertEqual(len(self.all(".job")), 6)
        first, second = self.card("pc-1.log", 1), self.card("pc-2.log", 1)
        self.assertEqual(first.location["y"], second.location["y"])
        self.assertGreaterEqual(second.location["x"], first.location["x"] + first.size["width"])
        below = self.card("pc-1.log", 2)
        self.assertEqual(below.location["x"], first.location["x"])
        self.assertGreater(below.location["y"], first.location["y"])
        self.assertIn("pc-2.log", self.one("#overview tbody tr:last-child").text)

    def test_of_many_logs_each_shows_its_last_bad_flash(self):
        self.show(self.fleet(12), width=1500)
        self.assertEqual([card.get_attribute("aria-label").rsplit("/")[-1] for card in self.all(".job")],
                         [f"pc-{number + 1}.log, flash 3" for number in range(12)])
        self.assertEqual(len({card.location["y"] for card in self.all(".job")}), 1)
        self.assertLessEqual(self.script("return document.documentElement.scrollWidth"), 1500)
        # The row of another flash opens it beside the one that is open.
        self.one("#overview tbody tr:nth-child(4) button").click()
        self.assertEqual(len(self.all(".job")), 13)
        self.assertEqual(self.card("pc-2.log", 1).location["x"], self.card("pc-2.log", 3).location["x"])
        self.assertTrue(self.is_seen(self.card("pc-2.log", 1)))

    def test_a_log_that_could_not_be_read_to_its_end_is_shown_as_such(self):
        page = self.browser.folder / "broken.html"
        text = self.sample.read_text().replace('"broke_off":null', '"broke_off":"The network is gone"')
        page.write_text(text)
        self.show(page)
        self.assertIn("Not read beyond byte 166\u202f078: The network is gone.", self.one("#flaws").text)

    def test_a_log_of_200_mb_has_all_errors_in_a_page_of_5_mb(self):
        path, copies = self.log_of_flashes(BIG_LOG)
        errors = pathlib.Path(SAMPLE).read_bytes().count(b"\tError\t")
        began = time.monotonic()
        page = self.browser.make(path, name="big.html")
        read = time.monotonic() - began
        print(f"{path.stat().st_size} bytes with {copies * 3} flashes read in {read:.0f} s, page {page.stat().st_size} bytes",
              file=sys.stderr)
        self.assertLessEqual(page.stat().st_size, BIGGEST_PAGE)

        self.show(page)
        self.assertEqual(len(self.all("#overview tbody tr")), copies * 3)
        shown = self.script("return records.filter((record) => record.level === 'error').length")
        self.assertEqual(shown, errors * copies)
        left, kept = self.script("return [records.reduce((sum, record) => sum + (record.leftOut || 0), 0), "
                                 "records.filter((record) => !record.leftOut).length]")
        self.assertEqual(left + kept, copies * (1114 + 3600))
        end = self.script("return records.every((record, i) => i === 0 || "
                          "record.offset === records[i - 1].offset + records[i - 1].size)")
        self.assertTrue(end, "each byte is a record's or a gap's")
        self.one("input[value=trace]").click()
        self.script("document.getElementById('more').click()")
        self.assertIn("left out: bytes", self.one(".record.gap").text)
        self.script("showJob(2, true)")
        self.script("document.querySelector('#job-2 .reason.first button').click()")
        self.assertIn("Could not download file", self.one(".record.chosen").text)


    def test_a_log_of_200_mb_of_good_flashes_has_all_stages_in_a_page_of_5_mb(self):
        path, copies = self.log_of_good_flashes(BIG_LOG)
        page = self.browser.make(path, name="dense.html")
        print(f"{path.stat().st_size} bytes with {copies * 2} good flashes, page {page.stat().st_size} bytes", file=sys.stderr)
        self.assertLessEqual(page.stat().st_size, BIGGEST_PAGE)

        few = self.browser.log(self.good_flashes(), "few.log")
        kinds = ("error", "warning", "stage")
        counts = "return arguments[0].map((kind) => records.filter((record) => !record.leftOut && groupOf(record) === kind).length)"
        drawn = "return jobs.slice(-2).map((job) => [job.stages, job.attempts, job.moments].map((rows) => rows.length))"
        self.show(self.browser.make(few, name="few.html"))
        expected, timelines = self.script(counts, kinds), self.script(drawn)
        self.show(page)
        self.assertEqual(len(self.all("#overview tbody tr")), copies * 2)
        self.assertEqual(self.script(counts, kinds), [count * copies for count in expected])
        self.assertEqual(self.script(drawn), timelines)
        self.assertGreater(self.script("return Math.min(...jobs.map((job) => job.progress.length))"), 15)
        # What a record of the last flash says stands where the page says that it does.
        offset, size, message = self.script("const last = records.findLast((record) => record.stage && !record.leftOut);"
                                            "return [last.offset, last.size, messageOf(last)]")
        with path.open("rb") as log:
            log.seek(offset)
            self.assertIn(message.encode(), log.read(size))
        self.assertEqual(self.script("return records.at(-1).offset + records.at(-1).size"), path.stat().st_size)

    @staticmethod
    def good_flashes():
        """The part of the sample in front of the process whose flash fails."""
        sample = pathlib.Path(SAMPLE).read_bytes()
        return sample[:re.search(rb"#[^#]*\t396~", sample).start()]

    def log_of_good_flashes(self, least):
        """One flash after the other and nothing else; each takes other times, and its records other room."""
        good, chance = self.good_flashes(), random.Random(1)
        path = self.browser.folder / "good.log"
        copies = 0
        with path.open("wb") as log:
            while log.tell() < least:
                text = re.sub(rb"\t(\d+)~", lambda found: b"\t%d~" % (int(found[1]) + 1000 * (copies % 50)), good)
                text = re.sub(rb"(:\d\d\.)\d{3}\t", lambda found: found[1] + b"%03d\t" % chance.randrange(1000), text)
                log.write(re.sub(rb"(HandleCallbacks\t[^#]*)", lambda found: found[1] + b"." * chance.randrange(30), text))
                copies += 1
        return path, copies

    def log_of_flashes(self, least):
        """A log as large as a real one of so many flashes: with the records of each step of the progress."""
        sample = pathlib.Path(SAMPLE).read_bytes()
        filler = b"".join(record(0, b"Trace", b"CFirmwareDownloader::GetAbsoluteProgress",
                                 b"\t downloadProgress:%d, m_ProgressBars:36,totalProgress:%d" % (i % 100, i))
                          for i in range(3600))
        path = self.browser.folder / f"flashes-{least}.log"
        copies = 0
        with path.open("wb") as log:
            while log.tell() < least:
                # Each copy of the sample by a process of its own.
                log.write(re.sub(rb"\t\d+~", b"\t%d~" % (copies + 10), sample))
                log.write(filler.replace(b"\t10~", b"\t%d~" % (copies + 10)))
                copies += 1
        return path, copies

    def test_a_log_of_200_mb_of_which_no_line_is_like_another_has_a_page_of_5_mb(self):
        path = self.browser.folder / "various.log"
        pieces = 0
        with path.open("wb") as log:
            while log.tell() < BIG_LOG:
                for _ in range(4):
                    pieces += 1
                    level, size = (b"Error", 3000) if pieces % 500 == 1 else (b"Trace", 700)
                    log.write(record(pieces // 100, level, b"A::B", b"%d <%s>" % (pieces, b"x" * size)))
                pieces += 1
                log.write(b"somebody else's line %d %s\r\n" % (pieces, b"y" * 2500))
        page = self.browser.make(path, name="various.html")
        print(f"{path.stat().st_size} bytes in {pieces} pieces, page {page.stat().st_size} bytes", file=sys.stderr)
        self.assertLessEqual(page.stat().st_size, BIGGEST_PAGE)
        self.assertGreaterEqual(page.stat().st_size, BIGGEST_PAGE * 0.8, "the room is used")

        self.show(page)
        self.assertEqual(self.script("return records.filter((record) => record.level === 'error').length"),
                         len(range(1, pieces + 1, 500)))
        self.assertIn("1\u202f000 of them are below, the first and the last", self.one("#flaws").text)
        self.assertIn("somebody else's line 5 ", self.texts()[1])
        count = self.one("#count").text
        self.assertIn("more are left out of this page", count)
        self.assertIn("long messages are shortened", count)
        self.assertEqual(self.script("return records.reduce((sum, record) => sum + (record.leftOut || 1), 0)"), pieces)
        newest = self.script("return messageOf(records[records.length - 2])")
        self.assertTrue(newest.startswith(f"{pieces - 1} <"), newest)

    def test_the_table_of_ten_times_the_log_needs_no_more_memory(self):
        peaks = [self.peak_memory(self.log_of_flashes(size)[0]) for size in (SMALL_LOG, BIG_LOG)]
        print(f"peak memory of the table: {peaks[0]} bytes of 20 MB, {peaks[1]} bytes of 200 MB", file=sys.stderr)
        self.assertLessEqual(peaks[1], peaks[0] + MOST_MORE_MEMORY)

    @staticmethod
    def peak_memory(*words):
        done = subprocess.run([sys.executable, "-S", "-c", PEAK_OF_CHILD, *PROGRAM, *words], check=True, timeout=300,
                              capture_output=True)
        return int(done.stdout) * 1024


# What a program begins with counts as its own, the memory of the process that starts it among it: a small one does.
PEAK_OF_CHILD = """
import resource, subprocess, sys
subprocess.run(sys.argv[1:], check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)
"""

# How much of two pictures looks different, of 0 to 1, by squares: the edges of letters differ with the font's
# rendering.
SHARE_OF_OTHER_SQUARES = """
const [one, two, done] = arguments;
const kSide = 8, kMostDifference = 24;
const read = async (text) => {
  const image = new Image();
  image.src = "data:image/png;base64," + text;
  await image.decode();
  const canvas = document.createElement("canvas");
  canvas.width = Math.ceil(image.width / kSide);
  canvas.height = Math.ceil(image.height / kSide);
  const context = canvas.getContext("2d");
  context.imageSmoothingQuality = "high";
  context.drawImage(image, 0, 0, canvas.width, canvas.height);
  return {width: image.width, height: image.height, bytes: context.getImageData(0, 0, canvas.width, canvas.height).data};
};
Promise.all([read(one), read(two)]).then(([a, b]) => {
  if (a.width !== b.width || a.height !== b.height) return done(1);
  let other = 0;
  for (let i = 0; i < a.bytes.length; i += 4) {
    if ([0, 1, 2].some((colour) => Math.abs(a.bytes[i + colour] - b.bytes[i + colour]) > kMostDifference)) ++other;
  }
  done(other * 4 / a.bytes.length);
});
"""


def pictures(browser):
    """The page as the documentation shows it: names of files, and PNGs in Base64."""
    # The page tells the path that it was given.
    sample, good = pathlib.Path(SAMPLE).read_bytes(), PageTest.good_flashes()
    log = browser.log(sample, "FlashServiceDebugLogger_DLL.log")
    page = browser.make(log.name, name="pictures.html")
    fleet = [browser.log(text, f"pc-{number}.log") for number, text in ((11, good), (12, sample[len(good):]))]
    side = browser.make(*[log.name for log in fleet], name="side.html")
    for name, page, how, script in (
            ("flashlog-timeline.png", page, {"width": 1100, "height": 680}, "showJob(2, true)"),
            ("flashlog-records.png", page, {"width": 1100, "height": 620}, "goToRecord(recordAt(0, jobs[2].reason))"),
            ("flashlog-dark.png", page, {"width": 1100, "height": 720, "dark": True}, ""),
            ("flashlog-side.png", side, {"width": 1440, "height": 900}, "")):
        browser.show(page, **how)
        browser.driver.execute_script(script)
        yield name, browser.driver.get_screenshot_as_base64()


def take_pictures():
    browser = Browser()
    try:
        for name, picture in pictures(browser):
            pathlib.Path(PICTURES, name).write_bytes(base64.b64decode(picture))
    finally:
        browser.close()


if ONLY_PICTURES:
    take_pictures()
else:
    unittest.main(argv=[sys.argv[0]], verbosity=2)
