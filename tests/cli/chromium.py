"""A page in headless Chromium, driven over the browser's debugging pipe: JSON messages that end with a zero byte."""
import base64
import json
import os
import select
import shutil
import subprocess
import tempfile
import time

CHROMIUM = shutil.which("chromium")


class Page:
    def __init__(self, url, dark=False, width=1280, height=900):
        self.profile = tempfile.mkdtemp(prefix="kab-chromium-")
        read_here, write_there = os.pipe()
        read_there, write_here = os.pipe()
        # The browser reads from descriptor 3 and writes to 4.
        self.process = subprocess.Popen(
            ["sh", "-c", f'exec "$@" 3<&{read_there} 4>&{write_there}', "sh", CHROMIUM, "--headless", "--no-sandbox",
             "--disable-gpu", "--disable-dev-shm-usage", "--no-first-run", "--disable-extensions",
             "--disable-background-networking", "--remote-debugging-pipe", f"--user-data-dir={self.profile}",
             f"--window-size={width},{height}"],
            pass_fds=(read_there, write_there), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(read_there)
        os.close(write_there)
        self.input, self.output = read_here, write_here
        self.buffer = b""
        self.number = 0
        self.session = None
        self.trouble = []   # what a console would show as an error
        self.requests = []
        target = self.call("Target.createTarget", url="about:blank")["targetId"]
        self.session = self.call("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]
        for domain in "Page", "Runtime", "Log", "Network":
            self.call(f"{domain}.enable")
        scheme = {"name": "prefers-color-scheme", "value": "dark" if dark else "light"}
        motion = {"name": "prefers-reduced-motion", "value": "reduce"}
        self.call("Emulation.setEmulatedMedia", features=[scheme, motion])
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1, mobile=False)
        self.call("Page.navigate", url=url)
        self.wait("document.readyState === 'complete' && document.querySelectorAll('.plot[data-view]').length > 0")

    def close(self):
        self.process.terminate()
        self.process.wait()
        os.close(self.input)
        os.close(self.output)
        shutil.rmtree(self.profile, ignore_errors=True)

    def _message(self, deadline):
        while b"\0" not in self.buffer:
            left = deadline - time.monotonic()
            if left <= 0 or not select.select([self.input], [], [], left)[0]:
                raise TimeoutError("chromium does not answer")
            data = os.read(self.input, 1 << 20)
            if not data:
                raise EOFError("chromium has gone")
            self.buffer += data
        message, self.buffer = self.buffer.split(b"\0", 1)
        return json.loads(message)

    def call(self, method, **parameters):
        self.number += 1
        message = {"id": self.number, "method": method, "params": parameters}
        if self.session:
            message["sessionId"] = self.session
        os.write(self.output, json.dumps(message).encode() + b"\0")
        deadline = time.monotonic() + 120
        while True:
            answer = self._message(deadline)
            if answer.get("id") == self.number:
                if "error" in answer:
                    raise RuntimeError(f"{method}: {answer['error']}")
                return answer["result"]
            event, details = answer.get("method"), answer.get("params", {})
            if event == "Runtime.exceptionThrown" or (event == "Log.entryAdded" and details["entry"]["level"] == "error"):
                self.trouble.append(details)
            elif event == "Runtime.consoleAPICalled" and details["type"] in ("error", "warning"):
                self.trouble.append(details)
            elif event == "Network.requestWillBeSent":
                self.requests.append(details["request"]["url"])

    def value(self, expression):
        result = self.call("Runtime.evaluate", expression=expression, returnByValue=True, awaitPromise=True)
        if "exceptionDetails" in result:
            raise RuntimeError(f"{expression}: {result['exceptionDetails']}")
        return result["result"].get("value")

    def wait(self, expression):
        deadline = time.monotonic() + 60
        while not self.value(expression):
            if time.monotonic() > deadline:
                raise TimeoutError(expression)
            time.sleep(0.05)

    def settle(self):
        """Two frames: what an input has set off is drawn then."""
        self.value("new Promise((done) => requestAnimationFrame(() => requestAnimationFrame(() => done(true))))")

    def key(self, key, code=0, text=""):
        for kind in "keyDown", "keyUp":
            self.call("Input.dispatchKeyEvent", type=kind, key=key, windowsVirtualKeyCode=code,
                      **({"text": text} if text and kind == "keyDown" else {}))
        self.settle()

    def mouse(self, kind, x, y, **more):
        self.call("Input.dispatchMouseEvent", type=kind, x=x, y=y, **more)

    def click(self, selector):
        box = self.value(f"(() => {{ const e = document.querySelector({json.dumps(selector)}); "
                         "e.scrollIntoView({block: 'center'}); const b = e.getBoundingClientRect(); "
                         "return [b.x + b.width / 2, b.y + b.height / 2]; })()")
        for kind in "mousePressed", "mouseReleased":
            self.mouse(kind, *box, button="left", clickCount=1)
        self.settle()

    def screenshot(self, path):
        size = self.call("Page.getLayoutMetrics")["cssContentSize"]
        data = self.call("Page.captureScreenshot", captureBeyondViewport=True,
                         clip={"x": 0, "y": 0, "width": size["width"], "height": size["height"], "scale": 1})["data"]
        with open(path, "wb") as file:
            file.write(base64.b64decode(data))
