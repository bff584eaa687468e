#!/usr/bin/env python3
"""The sample content of scripts/preview.sh, as the launcher preview shows it.

Publishes the sample with the same code as scripts/preview.sh, opens the page
in headless Chromium, checks what a viewer sees and saves the screenshot at
TILVANE_PREVIEW_SCREENSHOT (ctest: <build>/tests/browser/preview.png).
"""

import os
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import preview_harness as harness  # noqa: E402

WAIT = 10


class SampleContentTest(unittest.TestCase):

    def setUp(self):
        self.stack = harness.Stack()
        self.driver = None
        self.addCleanup(self.stack.stop)
        self.stack.start_bus()
        self.stack.start_service()
        sample = harness.import_sample_content(self.stack.source)
        publisher = sample.Publisher(self.stack.tilvanectl, self.stack.env, os.path.join(self.stack.dir, "rows"))
        sample.publish_sample(publisher, self.stack.source, self.stack.root)
        self.stack.start_preview()
        self.driver = harness.start_browser(os.path.join(self.stack.dir, "profile"))
        self.addCleanup(lambda: self.driver.quit())

    def texts(self, selector):
        return self.driver.execute_script(
            "return Array.from(document.querySelectorAll(arguments[0])).map(e => e.textContent)", selector)

    def test_the_sample_as_a_launcher_shows_it(self):
        self.driver.get(self.stack.address)
        harness.wait_until_settled(self.driver, WAIT)
        harness.wait_for(lambda: self.texts(".section .section-title") == ["Continue watching", "Picks for you"],
                         WAIT, "the sections of Videos")
        self.assertEqual(self.texts(".entry .entry-title")[:3], ["Videos", "Music", "Radio"])
        self.assertEqual(self.texts(".entry.disabled .entry-title"), ["Radio"])
        self.assertEqual(self.texts(".section:nth-of-type(1) .tile-title"), ["The Long Harbour", "Night Trains"])
        self.assertEqual(self.texts(".section:nth-of-type(2) .tile-title"),
                         ["Mountain Light", "Cities at Dawn", "Without a poster"])
        # Every poster of the sample is served from the platform root and loads.
        harness.wait_for(lambda: self.driver.execute_script(
            "return Array.from(document.querySelectorAll('img')).every(i => i.complete && i.naturalWidth > 0)"),
            WAIT, "the posters")
        self.assertEqual(self.driver.execute_script("return document.querySelectorAll('img.tile-picture').length"),
                         4)
        self.assertEqual(self.texts(".tile .placeholder"), ["Without a poster"])
        path = os.environ.get("TILVANE_PREVIEW_SCREENSHOT") or os.path.join(self.stack.dir, "preview.png")
        os.makedirs(os.path.dirname(os.path.abspath(path)), exist_ok=True)
        self.assertTrue(self.driver.save_screenshot(path))
        print("screenshot: " + path, file=sys.stderr)
        self.driver.quit()
        self.stack.check_exits()


if __name__ == "__main__":
    unittest.main(verbosity=2)
