#!/usr/bin/env python3
"""Publishes launcher content with tilvanectl, the way applications publish it.

As a program it publishes the sample content that scripts/preview.sh shows:
three launcher entries (Videos, Music and a disabled Radio), sections and
tiles with posters, progress, favourite and playable marks, and two tiles
outside their display period. The functions are shared with the browser
tests and the preview benchmark.

    sample_content.py TILVANECTL REPOSITORY_TOP

The platform root and the bus come from TILVANE_PLATFORM_ROOT and
DBUS_SESSION_BUS_ADDRESS, as for tilvanectl itself.
"""

import json
import os
import re
import subprocess
import sys
import tempfile
import time

# The application id that installs launcher entries (any id will do).
INSTALLER_APP_ID = "tilvane-preview-sample"


class Publisher:
    """Runs tilvanectl as chosen applications on one platform root and bus."""

    def __init__(self, tilvanectl, env=None, scratch=None):
        self.tilvanectl = tilvanectl
        self.env = dict(os.environ if env is None else env)
        self.scratch = scratch or tempfile.mkdtemp(prefix="tilvane-sample-")
        os.makedirs(self.scratch, exist_ok=True)
        self.files = 0

    def run(self, app_id, *args, check=True):
        done = subprocess.run([self.tilvanectl, "--app-id", app_id, *args], env=self.env, capture_output=True,
                              text=True, timeout=60)
        if check and done.returncode != 0:
            raise RuntimeError("tilvanectl %s failed (%d): %s%s" % (" ".join(args), done.returncode, done.stdout,
                                                                   done.stderr))
        return done

    def install_app(self, manifest):
        self.run("tilvanectl", "app", "install", manifest)

    def install_entry(self, package, title, position, enabled=True, icon=None):
        """A launcher entry, as the launcher installs it; returns its row id."""
        args = ["accelerator", "install", package, "--title", title, "--position", str(position),
                "--enabled", "1" if enabled else "0"]
        if icon:
            args += ["--icon", icon]
        return int(self.run(INSTALLER_APP_ID, *args).stdout.strip())

    def own_entry(self, app_id):
        """The row id of the application's own launcher entry (made by its first request if needed)."""
        rows = json.loads(self.run(app_id, "data", "select", "accelerators", "--columns", "_id", "--json").stdout)
        if len(rows) != 1:
            raise RuntimeError("%s sees %d launcher entries, expected its own one" % (app_id, len(rows)))
        return rows[0]["_id"]

    def add_section(self, app_id, entry_id, **values):
        """One section under the application's entry; returns its row id."""
        pairs = ["%s=%s" % (key, value) for key, value in values.items()]
        done = self.run(app_id, "data", "insert", "sections", "section_accelerator_raw_id=%d" % entry_id, *pairs)
        match = re.search(r"inserted row (\d+)", done.stdout)
        if not match:
            raise RuntimeError("no row id in: " + done.stdout)
        return int(match.group(1))

    def add_tiles(self, app_id, section_id, tiles):
        """The tiles of a section as one bulk insert, which sends a preview event."""
        self.files += 1
        path = os.path.join(self.scratch, "tiles-%d.jsonl" % self.files)
        with open(path, "w", encoding="utf-8") as out:
            for tile in tiles:
                row = dict(tile)
                row["tile_section_raw_id"] = section_id
                out.write(json.dumps(row) + "\n")
        self.run(app_id, "data", "insert", "tiles", "--bulk", path)


def write_under_root(root, device_path, text):
    """Writes `text` to the file the device sees as `device_path`, under the platform root."""
    file = os.path.join(root, device_path.lstrip("/"))
    os.makedirs(os.path.dirname(file), exist_ok=True)
    with open(file, "w", encoding="utf-8") as out:
        out.write(text)
    return device_path


def write_poster(root, device_path, title, colour, ratio="16:9"):
    """An SVG poster under the platform root at a device path such as /opt/usr/apps/..."""
    width, height = {"16:9": (320, 180), "4:3": (240, 180), "2:3": (120, 180), "1:1": (180, 180)}.get(ratio,
                                                                                                     (180, 180))
    escaped = title.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;")
    svg = ('<svg xmlns="http://www.w3.org/2000/svg" width="%d" height="%d" viewBox="0 0 %d %d">'
           '<defs><linearGradient id="g" x1="0" y1="0" x2="1" y2="1"><stop offset="0" stop-color="%s"/>'
           '<stop offset="1" stop-color="#111"/></linearGradient></defs>'
           '<rect width="100%%" height="100%%" fill="url(#g)"/>'
           '<text x="12" y="%d" font-family="sans-serif" font-size="20" font-weight="bold" fill="#fff">%s</text>'
           '</svg>') % (width, height, width, height, colour, height - 16, escaped)
    return write_under_root(root, device_path, svg)


def write_icon(root, device_path, letter, colour):
    """A launcher icon: one letter on a colour, under the platform root."""
    svg = ('<svg xmlns="http://www.w3.org/2000/svg" width="96" height="96" viewBox="0 0 96 96">'
           '<rect width="96" height="96" rx="18" fill="%s"/>'
           '<text x="48" y="66" text-anchor="middle" font-family="sans-serif" font-size="56" font-weight="bold"'
           ' fill="#fff">%s</text></svg>') % (colour, letter)
    return write_under_root(root, device_path, svg)


def publish_section(publisher, app, entry, section_id, title, position, tiles):
    """A section of `app`'s launcher entry, its title always shown, with its tiles."""
    section = publisher.add_section(app, entry, section_id=section_id, section_title=title,
                                    section_position=position, section_title_display_mode="ALWAYS")
    publisher.add_tiles(app, section, tiles)


def publish_sample(publisher, top, root):
    """The sample content of scripts/preview.sh."""
    publisher.install_app(os.path.join(top, "examples", "apps", "launcher.manifest"))
    publisher.install_app(os.path.join(top, "examples", "preview", "music.manifest"))

    videos_res = "/opt/usr/apps/org.example.videos/shared/res/"
    music_res = "/opt/usr/apps/org.example.music/shared/res/"
    publisher.install_entry("org.example.videos", "Videos", 1,
                            icon=write_icon(root, videos_res + "icon.svg", "V", "#1f6feb"))
    publisher.install_entry("org.example.music", "Music", 2,
                            icon=write_icon(root, music_res + "icon.svg", "M", "#8957e5"))
    publisher.install_entry("org.example.radio", "Radio", 3, enabled=False)

    now = int(time.time())
    videos = "org.example.videos.main"
    entry = publisher.own_entry(videos)
    publish_section(publisher, videos, entry, "continue", "Continue watching", 1, [
        {"tile_id": "v1", "tile_title": "The Long Harbour", "tile_subtitle": "Episode 4", "tile_position": 1,
         "tile_progress": 65, "tile_playable": 1, "tile_image_ratio": "16:9",
         "tile_image_path": write_poster(root, videos_res + "harbour.svg", "The Long Harbour", "#1f6feb"),
         "tile_action_play": "videos://play/v1", "tile_action_click": "videos://detail/v1"},
        {"tile_id": "v2", "tile_title": "Night Trains", "tile_subtitle": "Documentary", "tile_position": 2,
         "tile_progress": 20, "tile_playable": 1, "tile_favorite": 1, "tile_image_ratio": "16:9",
         "tile_image_path": write_poster(root, videos_res + "trains.svg", "Night Trains", "#238636"),
         "tile_action_play": "videos://play/v2"},
        {"tile_id": "v3", "tile_title": "Last season's final", "tile_position": 3, "tile_image_ratio": "16:9",
         "tile_display_until": now - 86400},
    ])
    publish_section(publisher, videos, entry, "picks", "Picks for you", 2, [
        {"tile_id": "p1", "tile_title": "Mountain Light", "tile_position": 1, "tile_image_ratio": "2:3",
         "tile_image_path": write_poster(root, videos_res + "mountain.svg", "Mountain", "#d29922", "2:3")},
        {"tile_id": "p2", "tile_title": "Cities at Dawn", "tile_position": 2, "tile_image_ratio": "2:3",
         "tile_favorite": 1,
         "tile_image_path": write_poster(root, videos_res + "cities.svg", "Cities", "#da3633", "2:3")},
        {"tile_id": "p3", "tile_title": "Next week's premiere", "tile_position": 3, "tile_image_ratio": "2:3",
         "tile_display_from": now + 7 * 86400},
        {"tile_id": "p4", "tile_title": "Without a poster", "tile_position": 4, "tile_image_ratio": "2:3"},
    ])

    music = "org.example.music.main"
    entry = publisher.own_entry(music)
    publish_section(publisher, music, entry, "albums", "Recent albums", 1, [
        {"tile_id": "m1", "tile_title": "Blue Hours", "tile_subtitle": "The Quiet Set", "tile_position": 1,
         "tile_image_ratio": "1:1", "tile_playable": 1,
         "tile_image_path": write_poster(root, music_res + "blue.svg", "Blue Hours", "#1f6feb", "1:1")},
        {"tile_id": "m2", "tile_title": "Paper Boats", "tile_position": 2, "tile_image_ratio": "1:1",
         "tile_image_path": write_poster(root, music_res + "boats.svg", "Paper Boats", "#bf8700", "1:1")},
    ])


def main():
    if len(sys.argv) != 3:
        print(__doc__, file=sys.stderr)
        return 2
    root = os.environ.get("TILVANE_PLATFORM_ROOT") or os.path.join(os.getcwd(), "tilvane-data")
    publish_sample(Publisher(sys.argv[1]), sys.argv[2], root)
    print("Published the sample content: Videos, Music and a disabled Radio entry.")
    return 0


if __name__ == "__main__":
    sys.exit(main())
