"""A browser without a window for the tests of pages; they are skipped where it or its driver is not installed."""
import os
import pathlib
import shutil
import sys
import tempfile
import time

SKIPPED = 77


def needed(what, is_there):
    if not is_there:
        print(f"skipped: {what} is not installed")
        sys.exit(SKIPPED)


try:
    from selenium import webdriver
    from selenium.webdriver.common.by import By  # noqa: F401
except ImportError:
    needed("python3-selenium", False)


class Browser:
    """Opens pages from the disk and keeps what goes wrong in them."""

    def __init__(self, size="1280,800"):
        needed("chromium", shutil.which("chromium"))
        needed("chromium-driver", shutil.which("chromedriver"))
        options = webdriver.ChromeOptions()
        self.home = tempfile.TemporaryDirectory(ignore_cleanup_errors=True)
        for argument in ["--headless=new", "--no-sandbox", "--use-angle=swiftshader", "--enable-unsafe-swiftshader",
                         "--disable-dev-shm-usage", f"--window-size={size}", f"--user-data-dir={self.home.name}"]:
            options.add_argument(argument)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        self.driver = webdriver.Chrome(options=options)
        for set_timeout in [self.driver.set_script_timeout, self.driver.set_page_load_timeout]:
            set_timeout(180)  # drawing without a GPU, on a busy machine

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.driver.quit()

    def run(self, script):
        return self.driver.execute_script(script)

    def open(self, address):
        path = pathlib.Path(address)
        self.driver.get(path.resolve().as_uri() if path.exists() else address)

    def wait(self, condition, seconds=180):
        end = time.monotonic() + seconds
        while not self.run(f"return {condition}"):
            assert time.monotonic() < end, f"{condition} did not come true: {self.errors()}"
            time.sleep(0.05)

    def errors(self):
        return [entry["message"] for entry in self.driver.get_log("browser") if entry["level"] == "SEVERE"]

    def colours(self):
        """The number of different colours that the terrain's canvas shows."""
        return self.run("""
            stage.terrain.render();
            const gl = stage.terrain.renderer.getContext(), {width, height} = gl.canvas;
            const bytes = new Uint8Array(4 * width * height);
            gl.readPixels(0, 0, width, height, gl.RGBA, gl.UNSIGNED_BYTE, bytes);
            return new Set(new Uint32Array(bytes.buffer)).size;""")

    def picture(self, path):
        os.makedirs(os.path.dirname(path), exist_ok=True)
        self.driver.save_screenshot(path)
