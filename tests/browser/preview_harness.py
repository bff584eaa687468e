"""Runs the real service and tilvane-preview on a private bus and a temporary
platform root, and a headless Chromium driven through WebDriver. Shared by the
browser tests and the preview benchmark.

The programs are found through the environment (CMake sets it for ctest):
TILVANE_BINARY, TILVANECTL_BINARY, TILVANE_PREVIEW_BINARY and TILVANE_SOURCE_DIR.
"""

import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time

SERVICE_APP_ID = "com.quillon.px.tilvane"


def required_env(name):
    value = os.environ.get(name)
    if not value:
        raise RuntimeError("%s is not set (run through ctest, or set it to the built program)" % name)
    return value


def wait_for(condition, timeout, what, interval=0.02):
    """Polls until condition() is true; raises with `what` after `timeout` seconds."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise TimeoutError("timed out after %.1f s waiting for %s" % (timeout, what))
        time.sleep(interval)


class Stack:
    """A private bus, the service and the preview, each a process of its own."""

    def __init__(self):
        self.source = required_env("TILVANE_SOURCE_DIR")
        self.tilvane = required_env("TILVANE_BINARY")
        self.tilvanectl = required_env("TILVANECTL_BINARY")
        self.preview = required_env("TILVANE_PREVIEW_BINARY")
        self.dir = tempfile.mkdtemp(prefix="tilvane-preview-test-")
        self.root = os.path.join(self.dir, "root")
        # Every process of the test runs as one user: the development
        # identity mode, chosen explicitly in the platform's configuration.
        os.makedirs(os.path.join(self.root, "etc"))
        with open(os.path.join(self.root, "etc", "tilvane.conf"), "w") as conf:
            conf.write("[identity]\nmode = development\n")
        self.processes = []
        self.names = []
        self.bus_pid = None
        self.env = dict(os.environ)
        self.env["TILVANE_PLATFORM_ROOT"] = self.root
        self.env.pop("TILVANE_CONFIG", None)
        self.address = None

    def start_bus(self):
        out = subprocess.run(["dbus-daemon", "--session", "--fork", "--nopidfile", "--print-address=1",
                              "--print-pid=1"], capture_output=True, text=True, check=True, timeout=30).stdout
        lines = out.split()
        self.env["DBUS_SESSION_BUS_ADDRESS"] = lines[0]
        self.bus_pid = int(lines[1])

    def check_exits(self):
        """Stops every process and raises when one did not end with status 0 (a
        sanitizer's report included); its standard error is in the message."""
        names = dict(self.names)
        codes = self.stop_processes()
        failed = ["%s exited with %s:\n%s" % (names[pid], code, self.log(names[pid])[-4000:])
                  for pid, code in codes.items() if code != 0]
        if failed:
            raise AssertionError("\n".join(failed))

    def _spawn(self, name, argv, app_id, log_level="D"):
        env = dict(self.env)
        env["TILVANE_APP_ID"] = app_id
        env["TILVANE_LOG_LEVEL"] = log_level
        out = open(os.path.join(self.dir, name + ".out"), "w")
        err = open(os.path.join(self.dir, name + ".err"), "w")
        process = subprocess.Popen(argv, env=env, stdout=out, stderr=err)
        out.close()
        err.close()
        self.processes.append(process)
        self.names.append((process.pid, name))
        return process

    def log(self, name, stream="err"):
        path = os.path.join(self.dir, "%s.%s" % (name, stream))
        with open(path, encoding="utf-8", errors="replace") as text:
            return text.read()

    def start_service(self):
        self._spawn("service", [self.tilvane], SERVICE_APP_ID)
        # The preview-event port is the last thing the service sets up.
        wait_for(lambda: "local port preview-event-receiver registered" in self.log("service"), 30,
                 "the service's preview-event port")

    def start_preview(self, *extra):
        process = self._spawn("preview", [self.preview, "--port", "0", *extra], "ContentServiceManager", "W")
        line = wait_for(lambda: self._address_line(), 20, "the preview's address")
        self.address = line.split(": ", 1)[1].strip()
        wait_for(lambda: "subscribed to preview events" in self.log("preview"), 20, "the preview's subscription")
        return process

    def _address_line(self):
        for line in self.log("preview", "out").splitlines():
            if line.startswith("tilvane-preview: http://"):
                return line
        return None

    def stop_processes(self):
        """SIGTERM to each process, newest first; their exit statuses by pid."""
        codes = {}
        for process in reversed(self.processes):
            if process.poll() is None:
                process.send_signal(signal.SIGTERM)
                try:
                    process.wait(timeout=20)
                except subprocess.TimeoutExpired:
                    process.kill()
                    process.wait()
            codes[process.pid] = process.returncode
        self.processes = []
        return codes

    def stop(self):
        self.stop_processes()
        if self.bus_pid:
            try:
                os.kill(self.bus_pid, signal.SIGTERM)
            except ProcessLookupError:
                pass
        if os.environ.get("TILVANE_KEEP_TEST_DIR") != "1":
            shutil.rmtree(self.dir, ignore_errors=True)


CHROMIUM_FLAGS = ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                  "--disable-background-networking", "--disable-component-update", "--disable-sync",
                  "--window-size=1400,900"]


def start_browser(profile_dir):
    """Headless Chromium through chromedriver, with a fresh profile."""
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service

    chromium = shutil.which("chromium") or "/usr/bin/chromium"
    driver = shutil.which("chromedriver") or "/usr/bin/chromedriver"
    options = webdriver.ChromeOptions()
    for flag in CHROMIUM_FLAGS:
        options.add_argument(flag)
    options.add_argument("--user-data-dir=" + profile_dir)
    options.binary_location = chromium
    return webdriver.Chrome(service=Service(driver), options=options)


def wait_until_settled(driver, timeout):
    """Waits for the first render, the live stream and the end of every load."""
    wait_for(lambda: driver.execute_script(
        "return document.body.dataset.renders && document.getElementById('live').className === 'live-on' &&"
        " document.body.dataset.loading === '0'"), timeout, "the page to settle")


def import_sample_content(source):
    sys.path.insert(0, os.path.join(source, "tools", "tilvane-preview"))
    import sample_content  # noqa: E402
    return sample_content
