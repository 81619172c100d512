#!/usr/bin/env python3
"""qorhost's status page in a real browser (headless Chromium driven by Selenium).

A real qorhost supervises a real agent (a copy of sleep under a name of its
own, started and stopped by the example daemon script). The page is loaded
twice:
  - from qorhost's read-only TCP listener (--http): the table shows the
    agents as the API does, and a click on "recycle" shows the listener's
    refusal, the agent left alone;
  - through a small local proxy to qorhost's unix socket, the way an operator
    reaches the socket from a browser (an SSH tunnel or a local proxy): a
    click on "recycle" is accepted, and the agent runs again with a new
    process, as the API and then the page say.
A screenshot goes to OUT/statuspage.png.

Exit status: 0 passed, 1 failed, 77 skipped (no Chromium, chromedriver or
Selenium; the reason is printed).
"""

import argparse
import http.client
import http.server
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import traceback
import urllib.parse

CHROMIUM = "/usr/bin/chromium"
CHROMEDRIVER = "/usr/bin/chromedriver"
SKIPPED = 77

AGENT = "Page sleeper"
PROGRAM = "qorpagesleepd"
HOST_AGENT = "qorhost of the page test"

# Generous: the sanitizer builds run qorhost several times slower.
STARTUP_S = 60
CHANGE_S = 45


class Failure(Exception):
    pass


def check(condition, message):
    if not condition:
        raise Failure(message)


def wait_for(what, probe, seconds):
    """Calls probe until it gives a true value, and returns that value;
    fails with `what` and the last value seen once `seconds` have passed."""
    deadline = time.monotonic() + seconds
    last = None
    while True:
        try:
            last = probe()
        except Exception as error:  # the browser or the API between two states
            last = error
        else:
            if last:
                return last
        if time.monotonic() > deadline:
            raise Failure("timed out after %ss waiting for %s; last seen: %r" % (seconds, what, last))
        time.sleep(0.2)


def skip_reason():
    for path in (CHROMIUM, CHROMEDRIVER):
        if not os.access(path, os.X_OK):
            return "%s is missing (Debian packages chromium and chromium-driver)" % path
    try:
        import selenium  # noqa: F401
    except ImportError:
        return "%s cannot import selenium (Debian package python3-selenium)" % sys.executable
    return None


class UnixConnection(http.client.HTTPConnection):
    """HTTP over qorhost's unix socket."""

    def __init__(self, path, timeout=10):
        super().__init__("localhost", timeout=timeout)
        self.socket_path = path

    def connect(self):
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.sock.settimeout(self.timeout)
        self.sock.connect(self.socket_path)


def request(socket_path, method, path, body=None, headers=None):
    """(status, headers, body bytes) of one request on the unix socket."""
    connection = UnixConnection(socket_path)
    try:
        connection.request(method, path, body=body, headers=headers or {})
        response = connection.getresponse()
        return response.status, response.getheaders(), response.read()
    finally:
        connection.close()


def agents(socket_path):
    status, _, body = request(socket_path, "GET", "/v1/agents")
    check(status == 200, "GET /v1/agents answered %d: %r" % (status, body))
    return json.loads(body)["agents"]


def agent(socket_path, name):
    for entry in agents(socket_path):
        if entry["name"] == name:
            return entry
    return None


def api_events(socket_path):
    status, _, body = request(socket_path, "GET", "/v1/events")
    check(status == 200, "GET /v1/events answered %d: %r" % (status, body))
    return json.loads(body)["events"]


def shown_events(driver):
    """The rendered events: (data-seq, row class, event cell) per row, top first."""
    from selenium.webdriver.common.by import By

    return [(int(row.get_attribute("data-seq")), row.get_attribute("class"),
             row.find_elements(By.TAG_NAME, "td")[3].text)
            for row in driver.find_elements(By.CSS_SELECTOR, "#events tbody tr")]


def events_match_api(driver, socket_path):
    """The page's events when they are the API's newest 50, newest first,
    the alerts marked; else None."""
    expected = list(reversed(api_events(socket_path)))[:50]
    shown = shown_events(driver)
    if [seq for seq, _, _ in shown] != [e["seq"] for e in expected]:
        return None
    for (seq, row_class, text), event in zip(shown, expected):
        marked = ("ALERT " + event["text"]) if event["alert"] else event["text"]
        check(text == marked and (row_class == "alert") == event["alert"],
              "event %d shown as %r, class %r; the API has %r" % (seq, text, row_class, event))
    return shown


def make_proxy(socket_path):
    """A local HTTP server that passes every request on to the unix socket."""

    class Forward(http.server.BaseHTTPRequestHandler):
        def forward(self):
            length = int(self.headers.get("Content-Length") or 0)
            body = self.rfile.read(length) if length else None
            headers = {k: v for k, v in self.headers.items() if k.lower() in ("content-type", "accept")}
            try:
                status, answer_headers, answer = request(socket_path, self.command, self.path, body, headers)
            except OSError as error:
                self.send_error(502, "qorhost's socket: %s" % error)
                return
            self.send_response(status)
            for key, value in answer_headers:
                if key.lower() == "content-type":
                    self.send_header(key, value)
            self.send_header("Content-Length", str(len(answer)))
            self.end_headers()
            self.wfile.write(answer)

        do_GET = forward
        do_POST = forward

        def log_message(self, *args):
            pass

    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Forward)
    server.daemon_threads = True
    threading.Thread(target=server.serve_forever, daemon=True).start()
    return server


def write(path, text, mode=None):
    with open(path, "w") as f:
        f.write(text)
    if mode is not None:
        os.chmod(path, mode)


def cap_document(subagent_id, body):
    return (
        '<?xml version="1.0" encoding="UTF-8"?>\n'
        '<subagents xmlns="urn:qor:cap" xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance" '
        'xsi:schemaLocation="urn:qor:cap mdhcap.xsd">\n'
        '  <subagent id="%s">\n%s  </subagent>\n</subagents>\n' % (subagent_id, body)
    )


class Host:
    """A temporary folder with the CAP files, the agent's program and scripts,
    and qorhost running on them."""

    def __init__(self, qorhost, daemon_script):
        self.dir = tempfile.mkdtemp(prefix="qor-statuspage-")
        self.cap = os.path.join(self.dir, "cap")
        self.ip = os.path.join(self.dir, "ip")
        self.run = os.path.join(self.dir, "run")
        for path, mode in ((self.cap, 0o755), (self.ip, 0o700), (os.path.join(self.run, "bin"), 0o755)):
            os.makedirs(path, mode)
        self.daemon_script = daemon_script
        self.env = dict(os.environ, QOR_EXAMPLES_RUN=self.run)
        self.socket = os.path.join(self.ip, "qorhost.sock")
        self.process = None
        self.qorhost = qorhost
        program = os.path.join(self.run, "bin", PROGRAM)
        shutil.copy("/bin/sleep", program)
        os.chmod(program, 0o755)
        script = "/bin/sh %s %%s %s" % (daemon_script, PROGRAM)
        # The host itself as the OS agent: without it the service would
        # manage no agent, and a recycle would be refused.
        write(
            os.path.join(self.cap, "host.xml"),
            cap_document(
                "page.host",
                "    <agentName>%s</agentName>\n"
                "    <procName>qorhost</procName>\n"
                "    <agentType>Console</agentType>\n"
                "    <agentPath>%s</agentPath>\n"
                '    <platform xsi:type="PlatformLinux"/>\n'
                "    <managerType>WatchDog</managerType>\n"
                "    <maxRestarts>3</maxRestarts>\n" % (HOST_AGENT, qorhost),
            ),
        )
        write(
            os.path.join(self.cap, "sleeper.xml"),
            cap_document(
                "page.sleeper",
                "    <agentName>%s</agentName>\n"
                "    <procName>%s</procName>\n"
                "    <agentType>Console</agentType>\n"
                "    <agentPath>%s</agentPath>\n"
                '    <platform xsi:type="PlatformLinux"/>\n'
                "    <checkFrequency>5</checkFrequency>\n"
                "    <managerType>TeoServices</managerType>\n"
                "    <maxRestarts>3</maxRestarts>\n"
                "    <startScript><command>%s</command></startScript>\n"
                "    <stopScript><command>%s</command></stopScript>\n"
                % (AGENT, PROGRAM, program, script % "start", script % "stop"),
            ),
        )

    def daemon(self, action):
        subprocess.run(["/bin/sh", self.daemon_script, action, PROGRAM], env=self.env, check=True,
                       stdout=subprocess.DEVNULL, timeout=30)

    def start(self):
        self.out = open(os.path.join(self.dir, "qorhost.out"), "w+")
        self.err = open(os.path.join(self.dir, "qorhost.err"), "w+")
        self.process = subprocess.Popen(
            [self.qorhost, "--cap-dir", self.cap, "--ip-dir", self.ip, "--trace-level", "128",
             "--trace-file", os.path.join(self.dir, "trace"), "--http", "127.0.0.1:0"],
            env=self.env, stdin=subprocess.DEVNULL, stdout=self.out, stderr=self.err)

    def output(self):
        texts = []
        for f in (self.out, self.err):
            f.flush()
            f.seek(0)
            texts.append(f.read())
        return "".join(texts)

    def http_address(self):
        """The TCP address qorhost says it took for --http."""
        for line in self.output().splitlines():
            marker = "qorhost: read-only HTTP on "
            if marker in line:
                return line[line.index(marker) + len(marker):].split()[0].rstrip(".,;")
        return None

    def stop(self):
        """Stops qorhost by SIGTERM as an operator does; its exit status."""
        if self.process is None:
            return None
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            try:
                self.process.wait(60)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        return self.process.returncode

    def cleanup(self):
        if self.process is not None and self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        try:
            self.daemon("stop")
        except Exception:
            traceback.print_exc()
        shutil.rmtree(self.dir, ignore_errors=True)


def browser():
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service

    options = webdriver.ChromeOptions()
    options.binary_location = CHROMIUM
    for flag in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                 "--window-size=1280,900"):
        options.add_argument(flag)
    return webdriver.Chrome(service=Service(CHROMEDRIVER), options=options)


def table(driver):
    """The rendered table: (data-agent, name, state, state class, pid, uptime, restarts) per row."""
    from selenium.webdriver.common.by import By

    rows = []
    for row in driver.find_elements(By.CSS_SELECTOR, "#agents tbody tr"):
        state = row.find_element(By.CSS_SELECTOR, "td.state")
        rows.append((row.get_attribute("data-agent"), row.find_element(By.CSS_SELECTOR, "td.name").text,
                     state.text, state.get_attribute("class"), row.find_element(By.CSS_SELECTOR, "td.pid").text,
                     row.find_element(By.CSS_SELECTOR, "td.uptime").text,
                     row.find_element(By.CSS_SELECTOR, "td.restarts").text))
    return rows


def table_matches_api(driver, socket_path):
    """The rows of the page when they name the API's agents, in its order,
    with its states; else None."""
    expected = [(a["name"], a["state"]) for a in agents(socket_path)]
    rows = table(driver)
    shown = [(row[1], row[2]) for row in rows]
    return rows if shown == expected else None


def text_of(driver, element_id):
    from selenium.webdriver.common.by import By

    return driver.find_element(By.ID, element_id).text


def recycle_button(driver, name):
    from selenium.webdriver.common.by import By

    for row in driver.find_elements(By.CSS_SELECTOR, "#agents tbody tr"):
        if row.get_attribute("data-agent") == name:
            return row.find_element(By.CSS_SELECTOR, 'button[data-command="recycle"]')
    raise Failure("no row for %r" % name)


def check_rendered_table(driver, socket_path):
    rows = wait_for("the page's table to show the API's agents and states",
                    lambda: table_matches_api(driver, socket_path), CHANGE_S)
    names = [row[0] for row in rows]
    check(sorted(names) == sorted([AGENT, HOST_AGENT]), "rows %r" % names)
    for data_agent, name, state, state_class, _, _, _ in rows:
        check(data_agent == name, "data-agent %r of the row of %r" % (data_agent, name))
        check(state_class.split() == ["state", "state-" + state], "class %r of state %r" % (state_class, state))
    # The agents' host name when the service knows one, else the host the
    # browser asked.
    host_name = agent(socket_path, AGENT)["host_name"] or urllib.parse.urlsplit(driver.current_url).hostname
    check(driver.title == "qor on " + host_name, "title %r, host %r" % (driver.title, host_name))
    check(text_of(driver, "title") == driver.title, "heading %r" % text_of(driver, "title"))
    return rows


def read_only_listener(driver, host, address, out_dir):
    """Through --http: the table as the API says, and a recycle refused."""
    driver.get("http://%s/" % address)
    check_rendered_table(driver, host.socket)
    driver.save_screenshot(os.path.join(out_dir, "statuspage.png"))
    before = agent(host.socket, AGENT)["pid"]
    recycle_button(driver, AGENT).click()
    result = wait_for("the refusal in #result", lambda: "403" in text_of(driver, "result") and text_of(driver, "result"),
                      CHANGE_S)
    check(result.startswith("recycle '%s': refused by qorhost (403 Forbidden: " % AGENT), result)
    check("read-only listener" in result and "takes no commands" in result, result)
    check(agent(host.socket, AGENT)["pid"] == before, "a refused recycle changed the pid")
    print("read-only listener: table as the API says, recycle refused: %s" % result)


def proxied_socket(driver, host, out_dir):
    """Through a proxy to the unix socket: a recycle that takes effect."""
    proxy = make_proxy(host.socket)
    try:
        driver.get("http://127.0.0.1:%d/" % proxy.server_address[1])
        check_rendered_table(driver, host.socket)
        before = agent(host.socket, AGENT)
        check(before["state"] == "running" and before["pid"] > 0, "before the recycle: %r" % before)
        recycle_button(driver, AGENT).click()
        wait_for("the answer in #result",
                 lambda: text_of(driver, "result") == "recycle '%s': 0 (accepted)" % AGENT, CHANGE_S)
        after = wait_for(
            "the API to show the agent running with a new pid",
            lambda: (lambda a: a if a["state"] == "running" and a["pid"] > 0 and a["pid"] != before["pid"] else None)(
                agent(host.socket, AGENT)),
            CHANGE_S)
        rows = wait_for("the page to show the agent running with the new pid",
                        lambda: [r for r in table(driver)
                                 if r[0] == AGENT and r[4] == str(after["pid"]) and r[2] == "running"],
                        CHANGE_S)
        # A process started moments ago: seconds, or a minute and seconds
        # on a slow sanitizer build.
        check(after["uptime_seconds"] is not None and 0 <= after["uptime_seconds"] < 120,
              "uptime of the new process: %r" % after["uptime_seconds"])
        check(re.fullmatch(r"[0-9]+s|1m [0-9]+s", rows[0][5]), "uptime shown: %r" % rows[0][5])
        print("proxied socket: recycle accepted, pid %d -> %d" % (before["pid"], after["pid"]))
        killed_by_hand(driver, host, after)
        driver.save_screenshot(os.path.join(out_dir, "statuspage-recycled.png"))
    finally:
        proxy.shutdown()
        proxy.server_close()


def killed_by_hand(driver, host, running):
    """A kill of the agent's process: the alert of its abnormal end is marked
    among the events, and the restart counts on the page as in the API."""
    os.kill(running["pid"], signal.SIGKILL)
    restarted = wait_for(
        "the service to restart the killed agent",
        lambda: (lambda a: a if a["state"] == "running" and a["pid"] not in (0, running["pid"])
                 and a["restarts_today"] == 1 else None)(agent(host.socket, AGENT)),
        CHANGE_S)
    alerts = [e for e in api_events(host.socket) if e["alert"] and e["agent"] == AGENT]
    check(alerts, "no alert for %s among %r" % (AGENT, api_events(host.socket)))
    shown = wait_for("the page's events to be the API's, newest first",
                     lambda: events_match_api(driver, host.socket), CHANGE_S)
    check(any(seq == alerts[-1]["seq"] and row_class == "alert" for seq, row_class, _ in shown),
          "alert %r not marked in %r" % (alerts[-1], shown))
    wait_for("the page to show the restart",
             lambda: [r for r in table(driver) if r[0] == AGENT and r[4] == str(restarted["pid"])
                      and r[2] == "running" and r[6] == "1 / 3"], CHANGE_S)
    print("killed by hand: alert %r marked, restarted as pid %d" % (alerts[-1]["text"], restarted["pid"]))


def gone(driver, host, address):
    """qorhost stopped under an open page: the page says it cannot be reached."""
    from selenium.webdriver.common.by import By

    driver.get("http://%s/" % address)
    check_rendered_table(driver, host.socket)
    check(not driver.find_element(By.ID, "connection").is_displayed(), "a problem shown while qorhost runs")
    status = host.stop()
    check(status == 0, "qorhost ended with %r after SIGTERM" % status)
    message = "qorhost cannot be reached at %s: is it running? The page tries again every 2 seconds." % address
    wait_for("the page to say that qorhost cannot be reached",
             lambda: driver.find_element(By.ID, "connection").is_displayed()
             and text_of(driver, "connection") == message, CHANGE_S)
    print("qorhost stopped: " + message)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--qorhost", required=True)
    parser.add_argument("--daemon-script", required=True, help="examples/scripts/example-daemon.sh")
    parser.add_argument("--out", required=True, help="folder of the screenshots")
    args = parser.parse_args()

    reason = skip_reason()
    if reason:
        print("skipped: " + reason)
        return SKIPPED

    host = Host(os.path.abspath(args.qorhost), os.path.abspath(args.daemon_script))
    driver = None
    try:
        host.daemon("start")
        host.start()
        wait_for("qorhost to show the agent running",
                 lambda: os.path.exists(host.socket) and (agent(host.socket, AGENT) or {}).get("state") == "running",
                 STARTUP_S)
        address = wait_for("qorhost to name its --http address", host.http_address, STARTUP_S)
        driver = browser()
        read_only_listener(driver, host, address, args.out)
        proxied_socket(driver, host, args.out)
        gone(driver, host, address)
        print("passed")
        return 0
    except Exception as failure:
        if not isinstance(failure, Failure):
            traceback.print_exc()
        print("FAILED: %s" % failure)
        if host.process is not None:
            print("qorhost's output:\n" + host.output())
        return 1
    finally:
        if driver is not None:
            driver.quit()
        host.cleanup()


if __name__ == "__main__":
    sys.exit(main())
