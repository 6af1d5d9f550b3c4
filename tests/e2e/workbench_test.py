#!/usr/bin/python3
"""A real browser uses the workbench: two devices with their agents, charts, a command, both tunnels, misbehaviour.

workbench_test.py BUILD_DIR [PICTURES_DIR]
With PICTURES_DIR it also leaves pictures of the page there, dark and light, wide and narrow. Exit status 77: skipped.
"""
import http.client
import os
import re
import signal
import socket
import subprocess
import sys
import time

try:
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.action_chains import ActionChains
    from selenium.webdriver.common.by import By
except ImportError:
    webdriver = None

SERIALS = ["SN00000001", "SN00000002"]
DRIVER = "/usr/bin/chromedriver"
WAIT_S = 60
NEEDED = [DRIVER, "/usr/bin/chromium", "/usr/share/javascript/chart.js/chart.min.js",
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


class Demo:
    """The demonstration with the workbench: NM, two devices with their agents, a web server and a telnet service."""

    def __init__(self, build):
        script = os.path.join(os.path.dirname(__file__), "../../scripts/demo")
        self.process = subprocess.Popen([script, "--console", "--build", build], stdout=subprocess.PIPE, text=True)
        self.nm_port = int(self.line(r"NM listens on http://127\.0\.0\.1:(\d+)"))
        self.port = int(self.line(r"in a browser: http://127\.0\.0\.1:(\d+)/"))

    def line(self, pattern):
        for line in self.process.stdout:
            print(line, end="", flush=True)
            found = re.search(pattern, line)
            if found:
                return found.group(1)
        raise AssertionError("never came: " + pattern)

    def end(self):
        self.process.send_signal(signal.SIGTERM)
        print(self.process.communicate()[0])
        return self.process.returncode


def browser_open():
    options = webdriver.ChromeOptions()
    for word in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--disable-quic",
                 "--disable-background-networking", "--disable-component-update", "--window-size=1280,900"):
        options.add_argument(word)
    options.binary_location = "/usr/bin/chromium"
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    browser = webdriver.Chrome(service=Service(DRIVER), options=options)
    browser.set_page_load_timeout(WAIT_S)
    return browser


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
    result = until("the result of reboot", lambda: re.search(r"result\{[^}]*\"result\":\"success\"",
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
    until("the device's page", lambda: "the device's own page" in page.text("body"))
    page.browser.execute_async_script("""
        const load = async number => {
            const frame = document.body.appendChild(document.createElement('iframe'));
            frame.src = '/?' + number;
            await new Promise(done => setTimeout(done, 50 * number));
            frame.remove();
            number < 12 ? load(number + 1) : arguments[0]();
        };
        load(1);""")  # loads that are cut short, while their pictures are on the way
    page.browser.refresh()
    until("its pictures", lambda: page.browser.execute_script(
        "return [...document.images].filter(picture => picture.naturalWidth > 0).length == 60"))
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
    look(page, 400, 800)
    assert page.browser.execute_script("return document.documentElement.scrollWidth <= 400"), "something sticks out"


def main():
    missing = [path for path in NEEDED if not os.path.exists(path)] + ([] if webdriver else ["python3-selenium"])
    if missing:
        print("skipped, missing (scripts/setup test installs them):", *missing)
        return 77
    demo, browser, status = Demo(sys.argv[1]), None, 1
    try:
        refuse_foreigners(demo.port)
        browser = browser_open()
        browser.get(f"http://127.0.0.1:{demo.port}/")
        page = Page(browser, demo.nm_port)
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
        status = demo.end()
    assert status == 0, status
    return 0


sys.exit(main())
