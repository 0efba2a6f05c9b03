"""A real browser without a screen, and what a person does with it.

    with Browser(folder) as browser:
        browser.open("http://127.0.0.1:9090/")
        browser.wait_for("td.requests", "3")
        browser.click("button")
"""

from selenium import webdriver
from selenium.common.exceptions import NoSuchElementException, StaleElementReferenceException
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By

from processes import PATIENCE_S, wait_until

BROWSER = "/usr/bin/chromium"
DRIVER = "/usr/bin/chromedriver"

# Nothing but the pages under test: no sandbox, which root has none of, and no traffic of its own.
FLAGS = ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
         "--disable-background-networking", "--disable-component-update", "--disable-sync",
         "--disable-dev-shm-usage", "--window-size=1280,800")


class Browser:
    """`folder` becomes its profile. Use it as a context manager."""

    def __init__(self, folder):
        folder.mkdir()
        options = webdriver.ChromeOptions()
        options.binary_location = BROWSER
        for flag in (*FLAGS, f"--user-data-dir={folder}"):
            options.add_argument(flag)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        self._driver = webdriver.Chrome(service=Service(DRIVER), options=options)
        self._driver.set_page_load_timeout(PATIENCE_S)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._driver.quit()

    # --- a person's verbs ---

    def open(self, address):
        self._driver.get(address)

    def click(self, selector):
        self.wait_until_shown(selector)
        self._driver.find_element(By.CSS_SELECTOR, selector).click()

    def fill(self, selector, text):
        self.wait_until_shown(selector)
        field = self._driver.find_element(By.CSS_SELECTOR, selector)
        field.clear()
        field.send_keys(text)

    def follow(self, selector):
        """Clicks a link that opens a tab, and goes there."""
        before = self._driver.window_handles
        self.click(selector)
        wait_until(lambda: len(self._driver.window_handles) > len(before), "a tab opened")
        new, = set(self._driver.window_handles) - set(before)
        self._driver.switch_to.window(new)

    def return_to_first_tab(self):
        self._driver.close()
        self._driver.switch_to.window(self._driver.window_handles[0])

    # --- what it shows ---

    @property
    def address(self):
        return self._driver.current_url

    @property
    def title(self):
        return self._driver.title

    def text(self, selector):
        """The text that a person sees there; None while there is none."""
        try:
            element = self._driver.find_element(By.CSS_SELECTOR, selector)
            return element.text if element.is_displayed() else None
        except (NoSuchElementException, StaleElementReferenceException):
            return None

    def texts(self, selector):
        """The texts of all such elements that are shown, from the top down."""
        return self._driver.execute_script(
            "return [...document.querySelectorAll(arguments[0])]"
            ".filter((each) => each.checkVisibility()).map((each) => each.innerText)", selector)

    def is_shown(self, selector):
        return self.text(selector) is not None

    def wait_until_shown(self, selector):
        wait_until(lambda: self.is_shown(selector), f"{selector} is shown")

    def wait_until_gone(self, selector):
        wait_until(lambda: not self.is_shown(selector), f"{selector} is shown no more")

    def wait_for(self, selector, condition):
        """Waits until the text there is `condition`, or fulfils it; returns the text."""
        fulfils = condition if callable(condition) else lambda text: text == condition
        seen = []

        def look():
            seen.append(self.text(selector))
            return seen[-1] is not None and fulfils(seen[-1])

        try:
            wait_until(look, selector)
        except AssertionError as failure:
            raise AssertionError(f"{failure}; it showed {seen[-1]!r}") from None
        return seen[-1]

    def overflows(self):
        """Whether the page is wider than its window."""
        return self._driver.execute_script(
            "return document.documentElement.scrollWidth > window.innerWidth")

    def color_of(self, selector, kind="color"):
        """Red, green and blue, 0 to 255."""
        value = self._driver.find_element(By.CSS_SELECTOR, selector).value_of_css_property(kind)
        return tuple(int(part) for part in value[value.index("(") + 1:-1].split(",")[:3])

    def screenshot(self, path):
        self._driver.save_screenshot(str(path))

    # --- its settings ---

    def resize(self, width, height):
        self._driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": height, "deviceScaleFactor": 1, "mobile": width < 600})

    def prefer(self, scheme):
        """What the person's system prefers, "dark" or "light"."""
        self._driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {
            "features": [{"name": "prefers-color-scheme", "value": scheme}]})

    def complaints(self):
        """What stands in the console since it was asked last: errors and warnings."""
        return [entry["message"] for entry in self._driver.get_log("browser")
                if entry["level"] in ("SEVERE", "WARNING")]

    def forget_complaints(self, about):
        """Takes those off that speak of `about`; there must be some, and no others."""
        complaints = self.complaints()
        assert complaints and all(about in complaint for complaint in complaints), complaints

    def start_over(self):
        for handle in self._driver.window_handles[1:]:
            self._driver.switch_to.window(handle)
            self._driver.close()
        self._driver.switch_to.window(self._driver.window_handles[0])
        self._driver.execute_cdp_cmd("Emulation.clearDeviceMetricsOverride", {})
        self._driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": []})
        self._driver.get("about:blank")
        self.complaints()
