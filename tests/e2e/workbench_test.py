#!/usr/bin/python3
"""A real browser uses the workbench: two devices with their agents, charts, a command, both tunnels, misbehaviour.

workbench_test.py BUILD_DIR [PICTURES_DIR]
With PICTURES_DIR it also leaves pictures of the page there, dark and light, wide and narrow. Exit status 77: skipped.
"""
import http.client
import http.server
import os
import re
import shutil
import signal
import socket
import socketserver
import subprocess
import sys
import tempfile
import threading
import time

try:
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.action_chains import ActionChains
    from selenium.webdriver.common.by import By
except ImportError:
    webdriver = None

SERIALS = ["SN00000001", "SN00000002"]
TELNETD = shutil.which("telnetd") or "/usr/sbin/telnetd"
DRIVER = "/usr/bin/chromedriver"
WAIT_S = 60
PAGE = b"<!doctype html><link rel=icon href=data:,><title>device</title><h1>the device's own page</h1>"
NEEDED = [DRIVER, "/usr/bin/chromium", TELNETD, "/usr/share/javascript/chart.js/chart.min.js",
          "/usr/share/nodejs/xterm/lib/public/Terminal.js"]


def until(what, holds):
    """Waits for holds() to be true and returns its value."""
    end = time.monotonic() + WAIT_S
    while time.monotonic() < end:
        value = holds()
        if value:
            return value
        time.sleep(0.1)
    raise AssertionError("never came: " + what)


class DevicePage(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        self.send_response(200)
        self.send_header("Content-Type", "text/html")
        self.send_header("Content-Length", str(len(PAGE)))
        self.end_headers()
        self.wfile.write(PAGE)

    def log_message(self, *_):
        pass


class DeviceTelnet(socketserver.BaseRequestHandler):
    def handle(self):
        subprocess.run([TELNETD, "-h", "-E", "/bin/sh"], stdin=self.request, stdout=self.request,
                       stderr=subprocess.DEVNULL, check=False)


class Server(socketserver.ThreadingTCPServer):
    allow_reuse_address = True
    daemon_threads = True
    block_on_close = False


def serve(handler):
    server = Server(("127.0.0.1", 0), handler)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    return server.server_address[1]


class Stage:
    """NM, two devices and two agents in a directory of their own."""

    def __init__(self, build):
        self.build, self.dir, self.running = build, tempfile.mkdtemp(prefix="workbench."), []

    def start(self, name, *words, cwd=None):
        log = os.path.join(self.dir, name + ".log")
        with open(log, "wb") as out:
            process = subprocess.Popen([os.path.join(self.build, words[0]), *words[1:]], stdin=subprocess.PIPE,
                                       stdout=out, stderr=subprocess.STDOUT, cwd=cwd)
        self.running.append(process)
        return process, log

    def line(self, log, pattern):
        def found():
            with open(log, encoding="utf-8", errors="replace") as text:
                return re.search(pattern, text.read())
        return until(pattern, found)

    def begin(self):
        _, nm_log = self.start("nm", "nm_simulator", "--console", "0")
        self.port = int(self.line(nm_log, r"workbench is at http://127\.0\.0\.1:(\d+)/").group(1))
        nm_port = self.line(nm_log, r"NM listens on http://127\.0\.0\.1:(\d+)").group(1)
        self.nm_port = int(nm_port)
        device, log = self.start("device", "device_simulator", "--dir", self.dir, "--nm-port", nm_port, "--count", "2",
                                 "--set", f"web_port={serve(DevicePage)}", "--set",
                                 f"telnet_port={serve(DeviceTelnet)}")
        self.line(log, "device 2: the device listens")
        for number in ("1", "2"):
            device.stdin.write(f'device {number}\nanswer reboot {{"type":"upgrade-result","result":"done"}}\n'.encode())
            folder = os.path.join(self.dir, number)
            with open(os.path.join(folder, "config.ini"), "w", encoding="utf-8") as ini:
                ini.write(f"[plugin_config]\nplugin_eth = lo\n[device_info]\ninit_cfg = {folder}/init\n")
            self.start("agent" + number, "proxy_plugin", cwd=folder)
        device.stdin.flush()

    def end(self):
        """Returns the exit statuses; a sanitizer's report would change them."""
        for process in reversed(self.running):
            process.send_signal(signal.SIGTERM)
        return [process.wait(60) for process in self.running]


def browser_open():
    options = webdriver.ChromeOptions()
    for word in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--disable-quic",
                 "--disable-background-networking", "--disable-component-update", "--window-size=1280,900"):
        options.add_argument(word)
    options.binary_location = "/usr/bin/chromium"
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    return webdriver.Chrome(service=Service(DRIVER), options=options)


class Page:
    def __init__(self, browser, nm_port):
        self.browser, self.nm_port = browser, nm_port

    def one(self, selector):
        return self.browser.find_element(By.CSS_SELECTOR, selector)

    def text(self, selector):
        return self.browser.execute_script("return document.querySelector(arguments[0])?.textContent ?? ''", selector)

    def click(self, selector):
        node = self.one(selector)
        self.browser.execute_script("arguments[0].scrollIntoView({block: 'center'})", node)
        node.click()

    def submit(self, form, value):
        field = self.one(f"#{form} input")
        field.clear()
        field.send_keys(value)
        self.click(f"#{form} button")

    def states(self):
        return self.browser.execute_script(
            "return Object.fromEntries([...document.querySelectorAll('#devices button')]"
            ".map(button => [button.dataset.serial, button.dataset.state]))")

    def picture_of_chart(self):
        return self.browser.execute_script("return document.getElementById('usage').toDataURL()")


def refuse_foreigners(port):
    """Only the page itself may use the server."""
    for headers, status in (({}, 200), ({"Host": f"localhost:{port}"}, 200), ({"Host": "nm.example"}, 403),
                            ({"Host": f"nm.example:{port}"}, 403), ({"Origin": f"http://127.0.0.1:{port}"}, 200),
                            ({"Origin": "http://nm.example"}, 403), ({"Origin": "null"}, 403),
                            ({"Origin": f"http://127.0.0.1:{port + 1}"}, 403)):
        for method, path in (("GET", "/"), ("POST", "/run?device=none")):
            link = http.client.HTTPConnection("127.0.0.1", port, timeout=10)
            link.request(method, path, body="trigger 6" if method == "POST" else None, headers=headers)
            assert link.getresponse().status == status, (method, headers, status)


def devices_and_chart(page):
    until("both devices online", lambda: page.states() == dict.fromkeys(SERIALS, "online"))
    for serial in reversed(SERIALS):
        page.click(f"#devices button[data-serial={serial}]")
        assert page.text("#serial") == serial
        page.submit("trigger", "1")
        until("the period is on its way", lambda s=serial: s in page.text("#said"))
    page.submit("period", "1")
    until("a chart with points", lambda: int(page.one("#usage").get_attribute("data-points") or 0) >= 2)
    before = page.picture_of_chart()
    until("the chart moves", lambda: page.picture_of_chart() != before)


def command_and_result(page):
    page.click("[data-command=reboot]")
    result = until("the result of reboot", lambda: re.search(r"result\{[^}]*\"result\":\"done\"",
                                                             page.text("#timeline")))
    assert '"sessionid":"wb-1"' in result.string
    page.click(f"#devices button[data-serial={SERIALS[1]}]")  # the other device has got nothing of it
    assert "reboot" not in page.text("#timeline")
    page.click(f"#devices button[data-serial={SERIALS[0]}]")


def device_page(page):
    own = page.browser.current_window_handle
    page.click("#web")
    until("a window for the device's page", lambda: len(page.browser.window_handles) == 2)
    page.browser.switch_to.window(next(h for h in page.browser.window_handles if h != own))
    until("the device's page", lambda: "the device's own page" in page.text("h1"))
    page.browser.close()
    page.browser.switch_to.window(own)
    until("a link to it", lambda: page.browser.find_elements(By.ID, "web-link"))


def terminal(page):
    page.click("#telnet")
    until("a terminal", lambda: page.browser.find_elements(By.CSS_SELECTOR, "#terminal .xterm-accessibility-tree"))
    until("a prompt", lambda: re.search("[#$]", page.text("#terminal .xterm-accessibility-tree")))
    ActionChains(page.browser).send_keys("echo $((6*7))\n").perform()
    until("42", lambda: re.search(r"(?<!\d)42(?!\d)", page.text("#terminal .xterm-accessibility-tree")))


def misbehaviour(page):
    page.click("[data-misbehave=silent]")
    until("the devices are not served", lambda: page.states() == dict.fromkeys(SERIALS, "not served"))
    assert page.one("[data-misbehave=silent]").get_attribute("aria-checked") == "true"
    page.click("[data-misbehave=silent]")
    until("the devices return", lambda: page.states() == dict.fromkeys(SERIALS, "online"))


def hostile(page):
    """What a device sends is shown as text, and what is wrong with it is marked."""
    assert not page.browser.find_elements(By.CSS_SELECTOR, "#transcript .wrong"), page.text("#transcript")
    name = "<i id=injected>"
    with socket.create_connection(("127.0.0.1", page.nm_port)) as link:
        body = f'["{name}"]'
        link.sendall(f"POST /dev-api/{name}/alarm HTTP/1.1\r\nContent-Length: {len(body)}\r\n\r\n{body}".encode())
        assert link.recv(1000)
    until("the device", lambda: name in page.states())
    page.click("#devices li:last-child button")
    page.click("#transcript .wrong summary")
    until("what is wrong with it", lambda: "WRONG: header 1" in page.text("#transcript .wrong pre.wrong"))
    assert f'"{name}"' in page.text("#transcript .wrong")
    assert name in page.text("#timeline") and name in page.text("#serial")
    assert not page.browser.find_elements(By.ID, "injected")


def look(page, width, height, scale=1):
    page.browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
        "width": width, "height": height, "deviceScaleFactor": scale, "mobile": False})
    time.sleep(1.5)  # the charts take their new sizes


def pictures(page, directory):
    """The whole page in each scheme and width, and the upper part of it, small."""
    page.browser.execute_script("document.activeElement.blur(); scrollTo(0, 0)")
    for scheme in ("dark", "light"):
        page.browser.execute_cdp_cmd("Emulation.setEmulatedMedia",
                                     {"features": [{"name": "prefers-color-scheme", "value": scheme}]})
        for width in (400, 1280):
            look(page, width, 900)
            look(page, width, page.browser.execute_script("return document.documentElement.scrollHeight"))
            page.browser.save_screenshot(os.path.join(directory, f"{scheme}-{width}.png"))
    look(page, 1280, 1200, 0.6)
    page.browser.save_screenshot(os.path.join(directory, "workbench.png"))


def narrow(page):
    page.browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
        "width": 400, "height": 800, "deviceScaleFactor": 1, "mobile": False})
    until("nothing sticks out at 400 pixels", lambda: page.browser.execute_script(
        "return document.documentElement.scrollWidth <= 400"))


def main():
    missing = [path for path in NEEDED if not os.path.exists(path)] + ([] if webdriver else ["python3-selenium"])
    if missing:
        print("skipped, missing (scripts/setup console installs them):", *missing)
        return 77
    stage, browser, statuses = Stage(os.path.abspath(sys.argv[1])), None, []
    try:
        stage.begin()
        refuse_foreigners(stage.port)
        browser = browser_open()
        browser.get(f"http://127.0.0.1:{stage.port}/")
        page = Page(browser, stage.nm_port)
        for step in (devices_and_chart, command_and_result, device_page, terminal, misbehaviour):
            print(step.__name__, flush=True)
            try:
                step(page)
            except AssertionError:
                print(page.text("#said"), page.text("#tunnels"), browser.get_log("browser"))
                raise
        if len(sys.argv) > 2:
            pictures(page, sys.argv[2])
        narrow(page)
        hostile(page)
        wrong = [entry for entry in browser.get_log("browser") if entry["level"] in ("SEVERE", "WARNING")]
        assert not wrong, wrong
    finally:
        if browser:
            browser.quit()
        statuses = stage.end()
        for name in ("nm", "device"):
            with open(os.path.join(stage.dir, name + ".log"), encoding="utf-8", errors="replace") as log:
                print("".join(line for line in log if "==" in line or " #" in line), end="")  # of a sanitizer
        shutil.rmtree(stage.dir)
    assert statuses == [0, 0, 15, 15], statuses
    return 0


sys.exit(main())
