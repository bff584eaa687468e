#!/usr/bin/env python3
"""How quickly the launcher preview shows the launcher, and follows a change.

Runs the real service and tilvane-preview on a private bus with the sample
content of scripts/preview.sh, and headless Chromium through WebDriver:

  first render   from the start of a page load (navigation start) until the
                 page has rendered the launcher: the page, its script, the
                 three API reads for the focused entry and the DOM;
  change delay   after a bulk insert of one tile with tilvanectl, until the
                 page has rendered it; measured from the moment the preview
                 received the preview event (the service's send, the page's
                 event stream, its reads and its render), and from the start
                 of the tilvanectl command (adds the tool's own start and its
                 request).

Both use the page's own clock readings, so WebDriver's polling does not count.

    bench/preview_bench.py --build build/dev [--loads 10] [--changes 20]

Needs the packages of the browser tests (chromium, chromium-driver,
python3-selenium): run it with /usr/bin/python3 on Debian.
"""

import argparse
import os
import statistics
import sys
import time

TOP = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(TOP, "tests", "browser"))
import preview_harness as harness  # noqa: E402


def summary(name, values):
    values = sorted(values)
    print("%-40s median %7.1f ms   min %7.1f ms   max %7.1f ms   (%d runs)" %
          (name, statistics.median(values), values[0], values[-1], len(values)))


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--build", default=os.path.join(TOP, "build", "dev"), help="the build folder")
    parser.add_argument("--loads", type=int, default=10)
    parser.add_argument("--changes", type=int, default=20)
    args = parser.parse_args()
    build = os.path.abspath(args.build)
    os.environ.setdefault("TILVANE_SOURCE_DIR", TOP)
    os.environ.setdefault("TILVANE_BINARY", os.path.join(build, "tilvane"))
    os.environ.setdefault("TILVANECTL_BINARY", os.path.join(build, "tools", "tilvanectl"))
    os.environ.setdefault("TILVANE_PREVIEW_BINARY", os.path.join(build, "tools", "tilvane-preview"))

    stack = harness.Stack()
    driver = None
    try:
        stack.start_bus()
        stack.start_service()
        sample = harness.import_sample_content(TOP)
        publisher = sample.Publisher(stack.tilvanectl, stack.env, os.path.join(stack.dir, "rows"))
        sample.publish_sample(publisher, TOP, stack.root)
        stack.start_preview()
        driver = harness.start_browser(os.path.join(stack.dir, "profile"))

        first_renders = []
        for _ in range(args.loads + 1):
            driver.get(stack.address)
            harness.wait_until_settled(driver, 30)
            first_renders.append(driver.execute_script("return window.previewFirstRenderAt"))
        # The first load also starts the browser's own machinery; report it apart.
        print("first render of the first page load: %.1f ms" % first_renders[0])
        summary("first render (page load to launcher)", first_renders[1:])

        section = publisher.add_section("org.example.videos.main", publisher.own_entry("org.example.videos.main"),
                                        section_id="bench", section_title="Bench", section_position=9,
                                        section_title_display_mode="ALWAYS")
        harness.wait_until_settled(driver, 30)
        from_event, from_command = [], []
        for number in range(args.changes):
            before = int(driver.execute_script("return Number(document.body.dataset.lastChange || 0)"))
            started = time.time() * 1000
            publisher.add_tiles("org.example.videos.main", section,
                                [{"tile_id": "bench%d" % number, "tile_title": "Bench %d" % number,
                                  "tile_position": number}])
            harness.wait_for(lambda: int(driver.execute_script(
                "return Number(document.body.dataset.appliedChange || 0)")) > before, 30, "the change")
            shown = driver.execute_script(
                "return Array.from(document.querySelectorAll('.tile-title')).some(e => e.textContent === arguments[0])",
                "Bench %d" % number)
            if not shown:
                raise RuntimeError("the page did not show Bench %d" % number)
            rendered = driver.execute_script("return window.previewLastRenderAt")
            received = driver.execute_script("return window.previewLastChange.received_ms")
            from_event.append(rendered - received)
            from_command.append(rendered - started)
        summary("change delay (event at the preview to page)", from_event)
        summary("change delay (tilvanectl start to page)", from_command)
    finally:
        if driver is not None:
            driver.quit()
        stack.stop()
    return 0


if __name__ == "__main__":
    sys.exit(main())
