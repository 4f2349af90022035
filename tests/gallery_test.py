"""The gallery in a browser:  gallery_test.py TARN FOLDER, where the gallery is made and the picture of it is kept."""
import os
import pathlib
import subprocess
import sys

from browser import Browser

tarn, folder = (os.path.abspath(path) for path in sys.argv[1:])
scripts = pathlib.Path(__file__).resolve().parent.parent / "scripts"

with Browser() as browser:
    subprocess.run([scripts / "gallery.sh", tarn, folder], check=True)
    browser.open(f"{folder}/index.html")
    assert browser.run("return document.querySelectorAll('section').length") == 17
    browser.run("for (const image of document.images) image.loading = 'eager'")
    browser.wait("[...document.images].every(image => image.complete)")
    blank = browser.run("return [...document.images].filter(i => !i.naturalWidth || !i.alt).map(i => i.src)")
    assert blank == [], blank
    browser.picture(f"{folder}/index.png")
    pages = browser.run("return [...document.querySelectorAll('.more a')].map(link => link.href)")
    assert len(pages) == 17, pages
    browser.driver.set_window_size(500, 400)
    for page in pages:
        browser.open(page)
        browser.wait("document.getElementById('message').textContent === ''")
        assert browser.colours() > 500, f"{page}: the canvas is blank"
    assert browser.errors() == []
    # On a phone nothing is wider than the window.
    browser.driver.set_window_size(500, 800)
    browser.open(f"{folder}/index.html")
    assert browser.run("return document.documentElement.scrollWidth <= innerWidth")
