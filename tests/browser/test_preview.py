#!/usr/bin/env python3
"""The launcher preview in a real browser.

The real service and tilvane-preview run on a private bus and a temporary
platform root; two applications publish their content with tilvanectl, and a
headless Chromium driven through WebDriver looks at the page: the launcher
row, the sections and tiles in position order with their texts and marks, the
display periods, the keyboard focus, live updates without a reload, escaping,
the image guard and the secret in the address. A screenshot of the page is saved at
TILVANE_PREVIEW_SCREENSHOT (ctest: <build>/tests/browser/preview.png).
"""

import http.client
import json
import os
import socket
import sys
import time
import unittest
import urllib.parse

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import preview_harness as harness  # noqa: E402

WAIT = 10  # seconds any one thing on the page may take

VIDEOS = "org.example.videos.main"
MUSIC = "org.example.music.main"
XSS_TITLE = "<script>alert(1)</script>"


class PreviewInBrowserTest(unittest.TestCase):

    @classmethod
    def setUpClass(cls):
        from selenium.webdriver.common.by import By
        from selenium.webdriver.common.keys import Keys
        cls.By, cls.Keys = By, Keys
        cls.stack = harness.Stack()
        cls.driver = None
        try:
            cls.stack.start_bus()
            cls.stack.start_service()
            cls.publish_initial_content()
            cls.stack.start_preview()
            cls.driver = harness.start_browser(os.path.join(cls.stack.dir, "profile"))
            cls.driver.get(cls.stack.address)
            harness.wait_until_settled(cls.driver, WAIT)
        except BaseException:
            cls.tearDownClass()
            raise

    @classmethod
    def tearDownClass(cls):
        try:
            if cls.driver is not None:
                cls.driver.quit()
            # The service and the preview end cleanly on SIGTERM.
            cls.stack.check_exits()
        finally:
            cls.stack.stop()

    # Content ---------------------------------------------------------------

    @classmethod
    def publish_initial_content(cls):
        sample = harness.import_sample_content(cls.stack.source)
        cls.sample = sample
        publisher = sample.Publisher(cls.stack.tilvanectl, cls.stack.env, os.path.join(cls.stack.dir, "rows"))
        cls.publisher = publisher
        publisher.install_app(os.path.join(cls.stack.source, "examples", "apps", "launcher.manifest"))
        publisher.install_app(os.path.join(cls.stack.source, "examples", "preview", "music.manifest"))
        # Installed out of position order, so that the page must sort them.
        publisher.install_entry("org.example.music", "Music", 2)
        publisher.install_entry("org.example.videos", "Videos", 1)
        publisher.install_entry("org.example.radio", "Radio", 3, enabled=False)

        now = int(time.time())
        root = cls.stack.root
        # A file beside the platform root: "../outside.svg" would name it if the guard let it.
        sample.write_poster(os.path.join(cls.stack.dir, "x"), "/outside.svg", "Outside", "#000")
        os.replace(os.path.join(cls.stack.dir, "x", "outside.svg"), os.path.join(cls.stack.dir, "outside.svg"))

        entry = publisher.own_entry(VIDEOS)
        second = publisher.add_section(VIDEOS, entry, section_id="second", section_title="Second",
                                       section_position=2, section_title_display_mode="ALWAYS")
        first = publisher.add_section(VIDEOS, entry, section_id="first", section_title="First",
                                      section_position=1, section_title_display_mode="ALWAYS")
        cls.first_section, cls.second_section = first, second
        publisher.add_tiles(VIDEOS, first, [
            # An image address that nobody answers: the placeholder shows.
            {"tile_id": "gamma", "tile_title": "Gamma", "tile_position": 3, "tile_favorite": 1,
             "tile_image_url": "http://127.0.0.1:9/unreachable.png"},
            {"tile_id": "alpha", "tile_title": "Alpha", "tile_subtitle": "Episode 1", "tile_position": 1,
             "tile_playable": 1, "tile_progress": 40, "tile_image_ratio": "16:9",
             "tile_image_path": sample.write_poster(root, "/opt/usr/apps/org.example.videos/res/alpha.svg",
                                                    "Alpha", "#1f6feb"),
             "tile_action_click": "videos://detail/alpha", "tile_action_play": "videos://play/alpha",
             "tile_action_pre_play": "videos://trailer/alpha", "tile_action_post_play": "videos://next/alpha",
             "tile_action_type": "APP_LAUNCH", "tile_action_details": "{\"season\": 1}"},
            {"tile_id": "xss", "tile_title": XSS_TITLE, "tile_position": 2, "tile_image_path": "../outside.svg"},
            {"tile_id": "expired", "tile_title": "Expired", "tile_position": 0, "tile_display_until": now - 3600},
            # A bound written in milliseconds, as some publishers do.
            {"tile_id": "later", "tile_title": "Later", "tile_position": 4,
             "tile_display_from": (now + 86400) * 1000},
        ])
        publisher.add_tiles(VIDEOS, second, [
            {"tile_id": "epsilon", "tile_title": "Epsilon", "tile_position": 2},
            {"tile_id": "delta", "tile_title": "Delta", "tile_position": 1, "tile_image_ratio": "2:3"},
        ])
        entry = publisher.own_entry(MUSIC)
        albums = publisher.add_section(MUSIC, entry, section_id="albums", section_title="Albums",
                                       section_position=1, section_title_display_mode="ALWAYS")
        cls.albums_section = albums
        publisher.add_tiles(MUSIC, albums, [{"tile_id": "blue", "tile_title": "Blue Hours", "tile_position": 1}])

    # Page helpers ------------------------------------------------------------

    def script(self, text, *args):
        return self.driver.execute_script(text, *args)

    def texts(self, selector):
        return self.script("return Array.from(document.querySelectorAll(arguments[0])).map(e => e.textContent)",
                           selector)

    def section_tiles(self, section_title):
        return self.script(
            "for (const s of document.querySelectorAll('.section')) {"
            "  if (s.querySelector('.section-title').textContent === arguments[0])"
            "    return Array.from(s.querySelectorAll('.tile .tile-title')).map(e => e.textContent); }"
            "return null;", section_title)

    def tile(self, tile_id):
        return self.driver.find_element(self.By.CSS_SELECTOR, ".tile[data-tile-id='%s']" % self.tile_row_id(tile_id))

    def tile_row_id(self, tile_id):
        """The row id of a tile, from the JSON API."""
        for section in (self.first_section, self.second_section, self.albums_section):
            for tile in self.api("/api/sections/%d/tiles" % section)["tiles"]:
                if tile["tile_id"] == tile_id:
                    return tile["_id"]
        self.fail("no tile " + tile_id)

    def api(self, path):
        status, headers, body = self.http_get(path)
        self.assertEqual(status, 200, body)
        return json.loads(body)

    def http_get(self, path, host=None, secret=True):
        """GET of `path` under the preview's secret address (or, with
        secret=False, as it stands)."""
        address = urllib.parse.urlsplit(self.stack.address)
        connection = http.client.HTTPConnection(address.hostname, address.port, timeout=WAIT)
        headers = {"Host": host} if host else {}
        connection.request("GET", address.path.rstrip("/") + path if secret else path, headers=headers)
        response = connection.getresponse()
        body = response.read().decode("utf-8", "replace")
        result = (response.status, dict(response.getheaders()), body)
        connection.close()
        return result

    def press(self, key):
        from selenium.webdriver.common.action_chains import ActionChains
        ActionChains(self.driver).send_keys(key).perform()

    def focused(self):
        return self.script(
            "const e = document.querySelector('.entry.focused'); if (e) return 'entry:' + "
            "e.querySelector('.entry-title').textContent;"
            "const t = document.querySelector('.tile.focused'); if (t) return 'tile:' + "
            "t.querySelector('.tile-title').textContent; return null;")

    def wait_page(self, condition, what):
        return harness.wait_for(condition, WAIT, what)

    def go_to_entry(self, title):
        """Moves the focus along the launcher row to the entry with this title."""
        while self.focused() is not None and self.focused().startswith("tile:"):
            self.press(self.Keys.ARROW_UP)
        titles = self.texts(".entry .entry-title")
        current = titles.index(self.focused()[len("entry:"):])
        target = titles.index(title)
        for _ in range(abs(target - current)):
            self.press(self.Keys.ARROW_RIGHT if target > current else self.Keys.ARROW_LEFT)
        self.wait_page(lambda: self.focused() == "entry:" + title, "the focus on " + title)

    # Tests -------------------------------------------------------------------

    def test_01_launcher_row_in_position_order(self):
        titles = self.texts(".entry .entry-title")
        self.assertEqual(titles[:3], ["Videos", "Music", "Radio"])
        # The entries the service makes for live television follow, without a position.
        self.assertTrue(all(title.startswith("livetv_") for title in titles[3:]), titles)
        disabled = self.texts(".entry.disabled .entry-title")
        self.assertEqual(disabled, ["Radio"])
        self.assertEqual(self.texts(".entry.disabled .entry-badge"), ["disabled"])
        self.assertEqual(self.focused(), "entry:Videos")

    def test_02_sections_and_tiles_in_position_order_with_marks(self):
        self.assertEqual(self.texts(".section .section-title"), ["First", "Second"])
        self.assertEqual(self.section_tiles("First"), ["Alpha", XSS_TITLE, "Gamma"])
        self.assertEqual(self.section_tiles("Second"), ["Delta", "Epsilon"])

        alpha = self.tile("alpha")
        self.assertEqual(alpha.find_element(self.By.CSS_SELECTOR, ".tile-subtitle").get_attribute("textContent"),
                         "Episode 1")
        self.assertEqual(len(alpha.find_elements(self.By.CSS_SELECTOR, ".mark.playable")), 1)
        self.assertEqual(len(alpha.find_elements(self.By.CSS_SELECTOR, ".mark.favorite")), 0)
        bar = alpha.find_element(self.By.CSS_SELECTOR, ".progress-bar")
        self.assertEqual(bar.get_attribute("data-progress"), "40")
        track = alpha.find_element(self.By.CSS_SELECTOR, ".progress")
        self.assertAlmostEqual(bar.size["width"] / track.size["width"], 0.40, delta=0.02)
        gamma = self.tile("gamma")
        self.assertEqual(len(gamma.find_elements(self.By.CSS_SELECTOR, ".mark.favorite")), 1)
        self.assertEqual(len(gamma.find_elements(self.By.CSS_SELECTOR, ".mark.playable")), 0)
        self.assertEqual(len(gamma.find_elements(self.By.CSS_SELECTOR, ".progress")), 0)

    def test_03_image_ratio_and_image_from_the_images_folder(self):
        frame = self.tile("alpha").find_element(self.By.CSS_SELECTOR, ".tile-image")
        self.assertAlmostEqual(frame.size["width"] / frame.size["height"], 16 / 9, delta=0.03)
        delta = self.tile("delta").find_element(self.By.CSS_SELECTOR, ".tile-image")
        self.assertAlmostEqual(delta.size["width"] / delta.size["height"], 2 / 3, delta=0.03)
        image = self.tile("alpha").find_element(self.By.CSS_SELECTOR, "img.tile-picture")
        self.wait_page(lambda: self.script("return arguments[0].complete && arguments[0].naturalWidth", image),
                       "the poster of Alpha")
        # An image that cannot be had leaves the tile's title in a placeholder.
        gamma = self.tile("gamma")
        self.wait_page(lambda: gamma.find_elements(self.By.CSS_SELECTOR, ".placeholder"), "Gamma's placeholder")
        self.assertEqual(gamma.find_element(self.By.CSS_SELECTOR, ".placeholder").get_attribute("textContent"),
                         "Gamma")
        self.assertEqual(self.tile("epsilon").find_element(self.By.CSS_SELECTOR, ".placeholder")
                         .get_attribute("textContent"), "Epsilon")

    def test_04_titles_are_text_and_images_come_from_the_images_folder_only(self):
        xss = self.tile("xss")
        self.assertEqual(xss.find_element(self.By.CSS_SELECTOR, ".tile-title").get_attribute("textContent"),
                         XSS_TITLE)
        self.assertEqual(self.script("return document.querySelectorAll('script').length"), 1)
        from selenium.common.exceptions import NoAlertPresentException
        with self.assertRaises(NoAlertPresentException):
            self.driver.switch_to.alert.text
        # "../outside.svg" exists beside the root, and is refused; the tile shows its placeholder.
        self.assertTrue(os.path.exists(os.path.join(self.stack.dir, "outside.svg")))
        self.wait_page(lambda: xss.find_elements(self.By.CSS_SELECTOR, ".placeholder"), "the refused image's placeholder")
        self.assertEqual(xss.find_element(self.By.CSS_SELECTOR, ".placeholder").get_attribute("textContent"), XSS_TITLE)
        # Images are asked for by their row: the tile's own path is read, from the images folder only.
        status, _, body = self.http_get("/api/tiles/%d/image" % self.tile_row_id("xss"))
        self.assertEqual(status, 403, body)
        self.assertIn("only images under /opt/usr/apps are served", body)
        fetched = self.script("return fetch('api/tiles/' + arguments[0] + '/image').then(r => r.status)",
                              self.tile_row_id("xss"))
        self.assertEqual(fetched, 403)
        status, headers, _ = self.http_get("/api/tiles/%d/image" % self.tile_row_id("alpha"))
        self.assertEqual(status, 200)
        self.assertEqual(headers.get("Content-Type"), "image/svg+xml")
        # No path can be asked for as such any more.
        status, _, _ = self.http_get("/api/image?path=" + urllib.parse.quote(
            "/opt/usr/apps/org.example.videos/res/alpha.svg"))
        self.assertEqual(status, 404)

    def test_05_headers_host_checks_and_the_secret(self):
        status, headers, body = self.http_get("/")
        self.assertEqual(status, 200)
        policy = headers.get("Content-Security-Policy", "")
        self.assertIn("script-src 'self'", policy)
        self.assertNotIn("unsafe-inline", policy.split("script-src", 1)[1].split(";")[0])
        self.assertEqual(headers.get("X-Content-Type-Options"), "nosniff")
        self.assertNotIn("<script>", body.replace('<script src="preview.js" defer></script>', ""))
        status, _, _ = self.http_get("/api/entries", host="attacker.example:80")
        self.assertEqual(status, 403)
        status, _, _ = self.http_get("/api/sections/x/tiles")
        self.assertEqual(status, 404)
        # Without the secret of this start, or with another, nothing is answered.
        secret = urllib.parse.urlsplit(self.stack.address).path.strip("/")
        wrong = ("0" if secret[0] != "0" else "1") + secret[1:]
        paths = ["/", "/api/entries", "/api/events", "/preview.js", "/" + wrong + "/api/entries"]
        if secret.upper() != secret:
            paths.append("/" + secret.upper() + "/api/entries")
        for path in paths:
            status, _, body = self.http_get(path, secret=False)
            self.assertEqual(status, 403, path + ": " + body)
            self.assertIn("secret address", body)
        status, headers, _ = self.http_get("/" + secret, secret=False)
        self.assertEqual(status, 302)
        self.assertTrue(headers.get("Location", "").endswith("/" + secret + "/"), headers.get("Location"))

    def test_06_listens_on_loopback_only(self):
        port = urllib.parse.urlsplit(self.stack.address).port
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
            try:
                probe.connect(("192.0.2.1", 9))
                own = probe.getsockname()[0]
            except OSError:
                own = None
        if own is None or own.startswith("127."):
            self.skipTest("this machine has no address other than loopback")
        with self.assertRaises(OSError):
            socket.create_connection((own, port), timeout=2).close()

    def test_07_display_period_switch(self):
        self.assertNotIn("Expired", self.section_tiles("First"))
        self.driver.find_element(self.By.ID, "show-hidden").click()
        self.wait_page(lambda: self.section_tiles("First") == ["Expired", "Alpha", XSS_TITLE, "Gamma", "Later"],
                       "the tiles outside their period")
        self.assertEqual(self.texts(".tile.out-of-period .tile-title"), ["Expired", "Later"])
        reasons = self.texts(".tile.out-of-period .tile-reason")
        self.assertTrue(reasons[0].startswith("ended "), reasons)
        self.assertTrue(reasons[1].startswith("starts "), reasons)
        expected_day = time.strftime("%Y-%m-%d", time.gmtime(time.time() + 86400))
        self.assertIn(expected_day, reasons[1])
        self.driver.find_element(self.By.ID, "show-hidden").click()
        self.wait_page(lambda: self.section_tiles("First") == ["Alpha", XSS_TITLE, "Gamma"], "the switch off")

    def test_08_arrow_keys_move_the_focus_and_enter_shows_the_actions(self):
        K = self.Keys
        self.go_to_entry("Videos")
        self.press(K.ARROW_RIGHT)
        self.wait_page(lambda: self.texts(".section .section-title") == ["Albums"], "Music's sections")
        self.assertEqual(self.focused(), "entry:Music")
        self.press(K.ARROW_LEFT)
        self.wait_page(lambda: self.texts(".section .section-title") == ["First", "Second"], "Videos' sections")
        self.assertEqual(self.focused(), "entry:Videos")
        self.press(K.ARROW_DOWN)
        self.assertEqual(self.focused(), "tile:Alpha")
        self.press(K.ARROW_RIGHT)
        self.assertEqual(self.focused(), "tile:" + XSS_TITLE)
        self.press(K.ARROW_RIGHT)
        self.assertEqual(self.focused(), "tile:Gamma")
        self.press(K.ARROW_RIGHT)  # the end of the row
        self.assertEqual(self.focused(), "tile:Gamma")
        self.press(K.ARROW_DOWN)
        self.assertEqual(self.focused(), "tile:Epsilon")
        self.press(K.ARROW_LEFT)
        self.assertEqual(self.focused(), "tile:Delta")
        self.press(K.ARROW_UP)
        self.assertEqual(self.focused(), "tile:Alpha")
        self.press(K.ENTER)
        panel = self.driver.find_element(self.By.ID, "actions")
        self.assertTrue(panel.is_displayed())
        self.assertEqual(self.driver.find_element(self.By.ID, "actions-title").text, "Alpha")
        actions = dict(zip(self.texts("#actions-list dt"), self.texts("#actions-list dd")))
        self.assertEqual(actions["click"], "videos://detail/alpha")
        self.assertEqual(actions["play"], "videos://play/alpha")
        self.assertEqual(actions["pre-play"], "videos://trailer/alpha")
        self.assertEqual(actions["post-play"], "videos://next/alpha")
        self.assertEqual(actions["action type"], "APP_LAUNCH")
        self.assertEqual(actions["details"], '{"season": 1}')
        self.press(K.ESCAPE)
        self.assertFalse(panel.is_displayed())
        self.press(K.ARROW_UP)
        self.assertEqual(self.focused(), "entry:Videos")

    def test_09_live_updates_without_a_reload(self):
        self.go_to_entry("Videos")
        self.script("window.previewMarker = 'still the same page'")
        before = int(self.script("return Number(document.body.dataset.lastChange || 0)"))

        # Its image comes from an address that answers (the preview's own image of Alpha).
        url = self.stack.address + "api/tiles/%d/image" % self.tile_row_id("alpha")
        self.publisher.add_tiles(VIDEOS, self.second_section, [
            {"tile_id": "zeta", "tile_title": "Zeta", "tile_position": 3, "tile_favorite": 1, "tile_image_url": url}])
        self.wait_page(lambda: self.section_tiles("Second") == ["Delta", "Epsilon", "Zeta"], "the new tile")
        image = self.tile("zeta").find_element(self.By.CSS_SELECTOR, "img.tile-picture")
        self.assertEqual(image.get_attribute("src"), url)
        self.wait_page(lambda: self.script("return arguments[0].complete && arguments[0].naturalWidth", image),
                       "the image from its address")
        self.assertEqual(self.script("return window.previewMarker"), "still the same page")
        self.assertIn("org.example.videos", self.driver.find_element(self.By.ID, "change").text)
        self.assertGreater(int(self.script("return Number(document.body.dataset.lastChange)")), before)

        # A delete through the content library is announced as well.
        self.publisher.run(VIDEOS, "data", "delete", "tiles", "--where", "tile_id = 'delta'")
        self.wait_page(lambda: self.section_tiles("Second") == ["Epsilon", "Zeta"], "the deleted tile gone")
        self.assertIn("deleted", self.driver.find_element(self.By.ID, "change").text)

        # The other application's change shows its package, and its entry's content follows.
        self.publisher.add_tiles(MUSIC, self.albums_section, [
            {"tile_id": "paper", "tile_title": "Paper Boats", "tile_position": 2}])
        self.wait_page(lambda: self.script("return document.body.dataset.lastChangePackage") == "org.example.music",
                       "the music change")
        self.assertIn("org.example.music", self.driver.find_element(self.By.ID, "change").text)
        self.go_to_entry("Music")
        self.wait_page(lambda: self.section_tiles("Albums") == ["Blue Hours", "Paper Boats"], "Music's new tile")
        self.assertEqual(self.script("return window.previewMarker"), "still the same page")
        self.go_to_entry("Videos")
        self.wait_page(lambda: self.texts(".section .section-title") == ["First", "Second"], "Videos again")

    def test_10_json_api(self):
        entries = self.api("/api/entries")["entries"]
        self.assertEqual([e["accelerator_title"] for e in entries[:3]], ["Videos", "Music", "Radio"])
        self.assertEqual([e["enabled"] for e in entries[:3]], [True, True, False])
        sections = self.api("/api/entries/%d/sections" % entries[0]["_id"])["sections"]
        self.assertEqual([s["section_title"] for s in sections], ["First", "Second"])
        tiles = self.api("/api/sections/%d/tiles" % sections[0]["_id"])["tiles"]
        self.assertEqual([t["tile_id"] for t in tiles], ["expired", "alpha", "xss", "gamma", "later"])
        self.assertEqual([t["visible"] for t in tiles], [False, True, True, True, False])
        self.assertEqual(tiles[2]["tile_title"], XSS_TITLE)
        status, _, body = self.http_get("/api/sections/%d/tiles" % sections[0]["_id"])
        self.assertNotIn("<script>", body)  # escaped as \u003c in the JSON text as well

    def test_11_screenshot(self):
        self.go_to_entry("Videos")
        self.press(self.Keys.ARROW_DOWN)
        self.wait_page(lambda: self.focused() == "tile:Alpha", "the focus on Alpha")
        path = os.environ.get("TILVANE_PREVIEW_SCREENSHOT") or os.path.join(self.stack.dir, "preview.png")
        os.makedirs(os.path.dirname(os.path.abspath(path)), exist_ok=True)
        self.assertTrue(self.driver.save_screenshot(path))
        self.assertGreater(os.path.getsize(path), 10000)
        print("screenshot: " + path, file=sys.stderr)


if __name__ == "__main__":
    unittest.main(verbosity=2)
