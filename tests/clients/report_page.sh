#!/bin/bash
# tavrin-tool's report in a real browser: it shows something, light and dark, with scripts and without, and its console
# has no errors.
source "$(dirname "$0")/lib.sh"
quietly "$tool" token create client --pin-file pin --so-pin-file so-pin
printf '21/11::10:00:%s\n' '00:000-> ->DEBUG ::=>C_Login' '00:600-> ->ERROR ::=>Token password validation failed : 20' \
  '05:000-> ->DEBUG ::=>C_Finalize' >sent.LOG
check "the report is written" "$tool" report page.html --module "$module" --log sent.LOG
cat >browse.py <<'END'
import sys
from selenium import webdriver

def browse(name, *arguments):
    options = webdriver.ChromeOptions()
    for argument in ("--headless=new", "--no-sandbox", "--window-size=900,1200", *arguments):
        options.add_argument(argument)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    browser = webdriver.Chrome(options=options)
    try:
        browser.get("file://" + sys.argv[1])
        text = browser.find_element("tag name", "body").text
        for wanted in ("Tavrin report", "gave a wrong password", "C_Login", "600 ms", "4.4 s", "client"):
            assert wanted in text, (name, wanted, text)
        rows = lambda: [row.text for row in browser.find_elements("css selector", ".c") if row.is_displayed()]
        before = len(rows())
        browser.find_element("id", "refused").click()
        assert before == 2 and len(rows()) == 1 and "C_Login" in rows()[0], rows()
        search = browser.find_element("id", "search")
        assert search.is_displayed() == ("--blink-settings=scriptEnabled=false" not in arguments), name
        if search.is_displayed():
            search.send_keys("nowhere")
            assert rows() == [], rows()
        errors = [entry for entry in browser.get_log("browser") if entry["level"] in ("SEVERE", "WARNING")]
        assert errors == [], errors
    finally:
        browser.quit()

browse("light")
browse("dark", "--force-dark-mode", "--blink-settings=preferredColorScheme=0")
browse("plain", "--blink-settings=scriptEnabled=false")
END
check "a browser shows it, light, dark and without scripts" /usr/bin/python3 browse.py "$work/page.html"
