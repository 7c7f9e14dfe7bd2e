"""A real browser, driven over the plain HTTP of its driver (WebDriver); it reaches nothing but the lab."""
import base64
import contextlib
import http.client
import json
import shutil
import subprocess
import tempfile

from .expect import expect

DRIVER, BROWSER = shutil.which("chromedriver"), shutil.which("chromium")
PORT = 9515


def is_there():
    return bool(DRIVER and BROWSER)


class Browser:
    """One window. Close it at the end."""

    def __init__(self):
        self._folder = tempfile.mkdtemp(prefix="browser-")
        self._driver = subprocess.Popen(  # pylint: disable=consider-using-with
            [DRIVER, f"--port={PORT}"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        expect(self._is_ready, within=60, what="the browser's driver answers")
        options = {"binary": BROWSER, "args": [
            "--headless", "--no-sandbox", "--disable-gpu", "--disable-background-networking", "--disable-component-update",
            "--disable-sync", "--disable-dev-shm-usage", "--hide-scrollbars", "--lang=en", f"--user-data-dir={self._folder}"]}
        answer = self._ask("POST", "/session", {"capabilities": {"alwaysMatch": {"goog:chromeOptions": options}}})
        self._session = f"/session/{answer['sessionId']}"

    def _is_ready(self):
        with contextlib.suppress(OSError):
            return self._ask("GET", "/status")["ready"]
        return False

    @staticmethod
    def _ask(method, path, body=None):
        connection = http.client.HTTPConnection("127.0.0.1", PORT, timeout=120)
        try:
            connection.request(method, path, None if body is None else json.dumps(body))
            value = json.loads(connection.getresponse().read())["value"]
        finally:
            connection.close()
        if isinstance(value, dict) and "error" in value:
            raise AssertionError(f"browser: {value['message']}")
        return value

    def _devtools(self, command, **parameters):
        return self._ask("POST", self._session + "/goog/cdp/execute", {"cmd": command, "params": parameters})

    def show(self, url, width, scheme="light"):
        """Opens a page as wide as that, light or dark."""
        self._devtools("Emulation.setDeviceMetricsOverride", width=width, height=900, deviceScaleFactor=1, mobile=False)
        self._devtools("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": scheme}])
        self._ask("POST", self._session + "/url", {"url": url})

    def run(self, script):
        """What the script returns."""
        return self._ask("POST", self._session + "/execute/sync", {"script": script, "args": []})

    def texts(self, selector):
        """The texts of all elements of a CSS selector, as they are shown."""
        return self.run(f"return Array.from(document.querySelectorAll({json.dumps(selector)})).map(one => one.innerText)")

    def screenshot(self, path):
        """The whole page as a PNG file."""
        taken = self._devtools("Page.captureScreenshot", format="png", captureBeyondViewport=True)
        with open(path, "wb") as file:
            file.write(base64.b64decode(taken["data"]))

    def close(self):
        with contextlib.suppress(OSError, AssertionError):
            self._ask("DELETE", self._session)
        self._driver.terminate()
        self._driver.wait()
        shutil.rmtree(self._folder, ignore_errors=True)
