#include "qorpage.h"

#include <string>

namespace qorpage {

const char kContentType[] = "text/html; charset=utf-8";

namespace {

// Everything the page needs is in this one document: a host that supervises
// agents is often cut off from the Internet, and a page that loads nothing
// from elsewhere cannot be changed by anyone but qorhost. The script puts
// every text that comes from the service into the page with textContent, so
// that an agent's name or an event's text can never become markup. The
// script's comments use the block form: the page holds no double slash at
// all, which lets a test prove that it names no other origin.
const char kPage[] = R"QORPAGE(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>qor</title>
<link rel="icon" href="data:,">
<style>
body { font-family: sans-serif; margin: 1.5em; color: #222; background: #fafafa; }
h1 { font-size: 1.4em; margin: 0 0 .4em; }
h2 { font-size: 1.1em; margin: 1.5em 0 .4em; }
table { border-collapse: collapse; background: #fff; }
th, td { border: 1px solid #ccc; padding: .25em .6em; text-align: left; vertical-align: middle; }
th { background: #eee; }
td.num { text-align: right; font-variant-numeric: tabular-nums; }
td.state { font-weight: bold; }
td.num, td.last-check, td.commands { white-space: nowrap; }
.state-running { background: #c6efc6; color: #0a5d0a; }
.state-down, .state-not_found { background: #f7c6c6; color: #8a0b0b; }
.state-starting, .state-stopping { background: #fde2a8; color: #7a4a00; }
.state-stopped, .state-unknown, .state-not_configured { background: #e0e0e0; color: #444; }
.gave-up { color: #8a0b0b; font-weight: bold; }
tr.alert td { background: #fff0f0; }
.mark { color: #8a0b0b; font-weight: bold; }
#connection { padding: .5em .8em; margin: .5em 0; border: 1px solid #c00; background: #fee; color: #800; }
#connection[hidden] { display: none; }
#result { min-height: 1.4em; margin: .6em 0; font-family: monospace; }
#result.failed { color: #8a0b0b; }
button { margin: 0 .1em; }
.muted { color: #666; font-size: .9em; }
</style>
</head>
<body>
<h1 id="title">qor</h1>
<p id="connection" role="alert" hidden></p>
<p class="muted" id="updated">Loading the agents...</p>
<table id="agents">
<thead><tr><th>Agent</th><th>State</th><th>PID</th><th>Uptime</th><th>Restarts today / limit</th><th>Last check</th><th>Commands</th></tr></thead>
<tbody></tbody>
</table>
<p id="result" role="status"></p>
<h2>Latest events</h2>
<table id="events">
<thead><tr><th>Time</th><th>Id</th><th>Agent</th><th>Event</th></tr></thead>
<tbody></tbody>
</table>
<script>
"use strict";
(function () {
  var COMMANDS = ["stop", "start", "recycle", "reset"];
  var REFRESH_MS = 2000;
  var EVENTS_SHOWN = 50;
  var READ_ONLY_HINT =
      "This address is qorhost's read-only listener: it shows the agents but takes no commands. " +
      "Run qorctl on the host, or reach qorhost's unix socket through an SSH tunnel or a local proxy.";

  var agentsBody = document.querySelector("#agents tbody");
  var eventsBody = document.querySelector("#events tbody");
  var connection = document.getElementById("connection");
  var result = document.getElementById("result");
  var updated = document.getElementById("updated");
  var title = document.getElementById("title");

  var rows = new Map();
  var events = [];
  var since = 0;
  var refreshing = false;
  var refreshAgain = false;

  function ApiError(status, message) {
    this.status = status;
    this.message = message;
  }

  /* An element holding `content` as plain text. */
  function textNode(tag, content, className) {
    var node = document.createElement(tag);
    node.textContent = content === null || content === undefined ? "" : String(content);
    if (className) node.className = className;
    return node;
  }

  /* Paths are relative, so that the page also works behind a proxy that
     serves qorhost under a prefix of its own. */
  async function call(path, options) {
    var response;
    try {
      response = await fetch(path, Object.assign({cache: "no-store", headers: {"Accept": "application/json"}},
                                                 options || {}));
    } catch (e) {
      throw new ApiError(0, "qorhost cannot be reached at " + location.host +
                                ": is it running? The page tries again every 2 seconds.");
    }
    var body = null;
    try {
      body = await response.json();
    } catch (e) {
      body = null;
    }
    var said = body && typeof body.error === "string" ? body.error : response.statusText;
    if (response.status === 403) {
      throw new ApiError(403, "refused by qorhost (403 Forbidden: " + said + "). " + READ_ONLY_HINT);
    }
    if (!response.ok) throw new ApiError(response.status, "qorhost answered " + response.status + ": " + said);
    if (body === null) throw new ApiError(response.status, "qorhost's answer is not JSON");
    return body;
  }

  function showProblem(message) {
    connection.textContent = message;
    connection.hidden = !message;
  }

  function showResult(message, failed) {
    result.textContent = message;
    result.className = failed ? "failed" : "";
  }

  function uptimeText(seconds) {
    if (typeof seconds !== "number" || seconds < 0) return "-";
    var s = Math.floor(seconds);
    var days = Math.floor(s / 86400), hours = Math.floor((s % 86400) / 3600);
    var minutes = Math.floor((s % 3600) / 60), rest = s % 60;
    if (days > 0) return days + "d " + hours + "h";
    if (hours > 0) return hours + "h " + minutes + "m";
    if (minutes > 0) return minutes + "m " + rest + "s";
    return rest + "s";
  }

  function localTime(epoch) {
    if (typeof epoch !== "number") return "never";
    return new Date(epoch * 1000).toLocaleString();
  }

  /* The state word as a class name: only the characters a word may have. */
  function stateWord(agent) {
    var word = typeof agent.state === "string" ? agent.state : "unknown";
    return word.replace(/[^a-z_]/g, "") || "unknown";
  }

  function newRow(name) {
    var row = document.createElement("tr");
    row.setAttribute("data-agent", name);
    ["name", "state", "pid num", "uptime num", "restarts num", "last-check"].forEach(function (kind) {
      row.appendChild(textNode("td", "", kind));
    });
    var commands = textNode("td", "", "commands");
    COMMANDS.forEach(function (command) {
      var button = textNode("button", command);
      button.type = "button";
      button.setAttribute("data-command", command);
      button.addEventListener("click", function () {
        runCommand(name, command, button);
      });
      commands.appendChild(button);
    });
    row.appendChild(commands);
    return row;
  }

  /* Cells are updated in place, so that a button keeps its identity while
     the operator reaches for it. */
  function fillRow(row, agent) {
    var cells = row.cells;
    cells[0].textContent = agent.name;
    var word = stateWord(agent);
    cells[1].textContent = word;
    cells[1].className = "state state-" + word;
    cells[1].title = "state " + agent.state_code + ", " + agent.managed;
    cells[2].textContent = typeof agent.pid === "number" && agent.pid > 0 ? String(agent.pid) : "-";
    cells[3].textContent = uptimeText(agent.uptime_seconds);
    cells[4].textContent = agent.restarts_today + " / " + agent.max_restarts;
    if (agent.gave_up) {
      cells[4].appendChild(document.createTextNode(" "));
      cells[4].appendChild(textNode("span", "GAVE UP", "gave-up"));
    }
    cells[5].textContent = localTime(agent.last_check);
  }

  function showAgents(agents) {
    var seen = new Map();
    var kept = new Map();
    agents.forEach(function (agent) {
      var name = String(agent.name);
      /* Instances of one agent may share a name: each keeps a row of its own. */
      var nth = (seen.get(name) || 0) + 1;
      seen.set(name, nth);
      var key = nth + " " + name;
      var row = rows.get(key) || newRow(name);
      fillRow(row, agent);
      agentsBody.appendChild(row);
      kept.set(key, row);
    });
    rows.forEach(function (row, key) {
      if (!kept.has(key)) row.remove();
    });
    rows = kept;
    var host = "";
    agents.forEach(function (agent) {
      if (!host && typeof agent.host_name === "string") host = agent.host_name;
    });
    var heading = "qor on " + (host || location.hostname);
    document.title = heading;
    title.textContent = heading;
    updated.textContent = agents.length + (agents.length === 1 ? " agent" : " agents") + ", updated " +
                          new Date().toLocaleTimeString() + "; the page refreshes every 2 seconds.";
  }

  function showEvents() {
    var body = document.createElement("tbody");
    for (var i = events.length - 1; i >= 0; --i) {
      var event = events[i];
      var row = document.createElement("tr");
      row.setAttribute("data-seq", String(event.seq));
      if (event.alert) row.className = "alert";
      row.appendChild(textNode("td", localTime(event.time)));
      row.appendChild(textNode("td", event.id, "num"));
      row.appendChild(textNode("td", event.agent));
      var text = textNode("td", "");
      if (event.alert) text.appendChild(textNode("span", "ALERT", "mark"));
      text.appendChild(document.createTextNode((event.alert ? " " : "") + String(event.text)));
      row.appendChild(text);
      body.appendChild(row);
    }
    eventsBody.replaceWith(body);
    eventsBody = body;
  }

  async function refreshEvents() {
    var answer = await call("v1/events?since=" + since);
    if (answer.last < since) {
      /* A newer qorhost counts from 1 again: start over. */
      events = [];
      since = 0;
      answer = await call("v1/events?since=0");
    }
    if (answer.events.length === 0 && answer.last === since) return;
    events = events.concat(answer.events).slice(-EVENTS_SHOWN);
    since = answer.last;
    showEvents();
  }

  async function refresh() {
    if (refreshing) {
      refreshAgain = true;
      return;
    }
    refreshing = true;
    try {
      var answer = await call("v1/agents");
      showAgents(answer.agents);
      await refreshEvents();
      showProblem("");
    } catch (e) {
      showProblem(e instanceof ApiError ? e.message : "The page failed: " + e);
    } finally {
      refreshing = false;
    }
    if (refreshAgain) {
      refreshAgain = false;
      refresh();
    }
  }

  async function runCommand(name, command, button) {
    var what = command + " '" + name + "'";
    button.disabled = true;
    showResult(what + ": sent", false);
    try {
      var answer = await call("v1/agents/" + encodeURIComponent(name) + "/" + command, {method: "POST"});
      showResult(what + ": " + answer.code + " (" + answer.meaning + ")", answer.code !== 0);
    } catch (e) {
      showResult(what + ": " + (e instanceof ApiError ? e.message : String(e)), true);
    } finally {
      button.disabled = false;
    }
    refresh();
  }

  refresh();
  setInterval(refresh, REFRESH_MS);
})();
</script>
</body>
</html>
)QORPAGE";

}  // namespace

const std::string& html() {
  static const std::string kHtml(kPage);
  return kHtml;
}

}  // namespace qorpage
