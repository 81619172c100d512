#!/usr/bin/env python3
"""Checks of the manual pages that the build makes in build/doc/man.

  mantest.py render PAGE
      man -l renders PAGE without one warning, and the page has the sections
      an operator looks for.
  mantest.py options PAGE PROGRAM
      every option token of `PROGRAM --help` (--long and -x), and every
      command word it lists, appears in PAGE as man shows it.
  mantest.py example PAGE QORCTL
      the whole example CAP file of PAGE, copied from the rendered page,
      passes `QORCTL validate`.
  mantest.py environment PAGE SOURCE_DIR
      every environment variable that the code under SOURCE_DIR reads is
      named in PAGE.

Exit status 0 on success, 1 on a finding (each one printed), 77 when the page
was not built because scdoc is missing or man-db is not installed.
"""

import os
import re
import shutil
import subprocess
import sys
import tempfile

SKIP = 77

# An option token stands alone: not inside a word ("Ctrl-C"), not the tail of
# a longer dash run ("srwxrwx---").
LONG_OPTION = re.compile(r"(?<![\w-])--[A-Za-z][\w-]*")
SHORT_OPTION = re.compile(r"(?<![\w-])-[A-Za-z](?![\w-])")

# What every page has, and what the pages of programs add.
COMMON_SECTIONS = ["NAME", "DESCRIPTION", "SEE ALSO"]
PROGRAM_SECTIONS = ["SYNOPSIS", "OPTIONS", "SIGNALS", "EXIT STATUS", "ENVIRONMENT", "FILES",
                    "EXAMPLES"]


def fail(findings):
    for finding in findings:
        print("FAIL: " + finding)
    return 1 if findings else 0


def need_page(page):
    if os.path.isfile(page):
        return True
    if os.environ.get("QOR_MAN_PAGES_BUILT") == "1":
        print("FAIL: %s was not built, although scdoc was found" % page)
        sys.exit(1)
    print("SKIP: %s was not built (scdoc missing when the build was configured)" % page)
    sys.exit(SKIP)


def need_man():
    if shutil.which("man") is None or shutil.which("groff") is None:
        print("SKIP: man or groff is missing (Debian packages man-db, groff-base)")
        sys.exit(SKIP)


def man_env(width):
    env = dict(os.environ)
    env.update({"LC_ALL": "C.UTF-8", "MANROFFSEQ": "", "MANWIDTH": str(width), "MAN_KEEP_FORMATTING": ""})
    env.pop("MANPAGER", None)
    env.pop("PAGER", None)
    return env


def rendered_text(page, width=200):
    """The page as man shows it, in plain ASCII without hyphenation, so that
    an option is never split over two lines."""
    result = subprocess.run(["man", "--nh", "--nj", "-E", "ascii", "-l", page],
                            env=man_env(width), capture_output=True, text=True, check=False)
    if result.returncode != 0:
        print("FAIL: man -l %s exited with %d: %s" % (page, result.returncode, result.stderr))
        sys.exit(1)
    # Bold and underline by overstrike, in case a man still prints them.
    return re.sub(r".\x08", "", result.stdout)


def section_headings(text):
    return {line.strip() for line in text.splitlines() if re.fullmatch(r"[A-Z][A-Z ]*", line)}


def render(page):
    need_page(page)
    need_man()
    findings = []
    # What lintian runs on every page of a package, and groff with every warning on.
    result = subprocess.run(["man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", "-Z", page],
                            env=man_env(80), capture_output=True, text=True, check=False)
    if result.returncode != 0 or result.stderr:
        findings.append("man --warnings -l %s: exit %d, said: %s" % (page, result.returncode, result.stderr))
    result = subprocess.run(["groff", "-man", "-ww", "-z", page], capture_output=True, text=True, check=False)
    if result.returncode != 0 or result.stderr:
        findings.append("groff -man -ww -z %s: exit %d, said: %s" % (page, result.returncode, result.stderr))
    text = rendered_text(page, 80)
    headings = section_headings(text)
    wanted = COMMON_SECTIONS + (PROGRAM_SECTIONS if re.search(r"\.[18]$", page) else [])
    for section in wanted:
        if section not in headings:
            findings.append("%s has no section %s (it has: %s)" % (page, section, ", ".join(sorted(headings))))
    name = os.path.basename(page)
    title = "%s(%s)" % tuple(name.rsplit(".", 1))
    if not text.lstrip().startswith(title):
        findings.append("%s does not begin with its title %s" % (page, title))
    return fail(findings)


def help_text(program):
    result = subprocess.run([program, "--help"], capture_output=True, text=True, check=False)
    if result.returncode != 0 or not result.stdout:
        print("FAIL: %s --help exited with %d and printed %d bytes" %
              (program, result.returncode, len(result.stdout)))
        sys.exit(1)
    return result.stdout


def command_words(help_output):
    """The command words of a --help: qorctl's under "Commands:", qorhost's
    under "Commands, one a line ...", each line "  word[|word...] ARGS  text"."""
    words = []
    block = None
    for line in help_output.splitlines():
        if re.match(r"Commands\b", line):
            block = []
            continue
        if block is None:
            continue
        if not line.strip():
            break
        match = re.match(r"  ([a-z][a-z|]*)(\s|$)", line)
        if match:
            block.extend(match.group(1).split("|"))
    if block:
        words.extend(block)
    return words


def contains_token(text, token):
    return re.search(r"(?<![\w-])" + re.escape(token) + r"(?![\w-])", text) is not None


def options(page, program):
    need_page(page)
    need_man()
    output = help_text(program)
    tokens = sorted(set(LONG_OPTION.findall(output)) | set(SHORT_OPTION.findall(output)))
    words = command_words(output)
    if not tokens:
        return fail(["%s --help shows no option at all: the collection of tokens is broken" % program])
    text = rendered_text(page)
    findings = []
    for token in tokens:
        if not contains_token(text, token):
            findings.append("option %s of %s --help is not in %s" % (token, os.path.basename(program), page))
    for word in words:
        if not contains_token(text, word):
            findings.append("command %s of %s --help is not in %s" % (word, os.path.basename(program), page))
    print("checked %d options (%s) and %d commands (%s)" %
          (len(tokens), " ".join(tokens), len(words), " ".join(words)))
    return fail(findings)


def whole_example(text):
    """The lines from the one "<?xml" to the first "</subagents>" after it,
    without the indentation man gives a literal block."""
    lines = text.splitlines()
    starts = [i for i, line in enumerate(lines) if line.lstrip().startswith("<?xml")]
    if len(starts) != 1:
        return None, "the page shows %d lines that open with <?xml, not one" % len(starts)
    ends = [i for i in range(starts[0], len(lines)) if lines[i].strip() == "</subagents>"]
    if not ends:
        return None, "no </subagents> after the <?xml line"
    block = lines[starts[0]:ends[0] + 1]
    indent = len(block[0]) - len(block[0].lstrip())
    return "\n".join(line[indent:] for line in block) + "\n", None


def example(page, qorctl):
    need_page(page)
    need_man()
    content, problem = whole_example(rendered_text(page))
    if problem:
        return fail(["%s: %s" % (page, problem)])
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "example.xml")
        with open(path, "w", encoding="utf-8") as file:
            file.write(content)
        env = dict(os.environ)
        env.pop("PROCESSOR_ARCHITECTURE", None)
        result = subprocess.run([qorctl, "validate", path], env=env, capture_output=True, text=True,
                                check=False)
    print(result.stdout + result.stderr, end="")
    if result.returncode != 0 or ": ok, subagent " not in result.stdout:
        return fail(["qorctl validate of the example in %s exited with %d" % (page, result.returncode)])
    return 0


# Where the code reads a variable: by name, or as $NAME in a text that the
# service expands ("$MARLOWHOME/$ZEL_BINARCH/..."); "$$NODATA" is protocol.
SOURCE_FOLDERS = ["core", "agents", "cap", "watchdog", "interfaces", "platform", "tools", "include"]
READ_BY_NAME = re.compile(r'(?:getenv|secure_getenv|QOR_GetEnvironment|QOR_GetEnvironmentAsInt|OSV1_GetEnv|envOr)'
                          r'\s*\(\s*L?"([A-Za-z_][A-Za-z0-9_]*)"')
STRING_LITERAL = re.compile(r'"(?:[^"\\\n]|\\.)*"')
EXPANDED = re.compile(r"(?<!\$)\$([A-Z][A-Z0-9_]*)")
# Read by libsystemd on the programs' behalf, so never named in our code.
READ_BY_LIBSYSTEMD = ["NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"]


def variables_read(source_dir):
    found = {name: "libsystemd" for name in READ_BY_LIBSYSTEMD}
    for folder in SOURCE_FOLDERS:
        top = os.path.join(source_dir, folder)
        for name in sorted(os.listdir(top)) if os.path.isdir(top) else []:
            if not name.endswith((".cpp", ".h")):
                continue
            path = os.path.join(top, name)
            with open(path, encoding="utf-8") as file:
                code = file.read()
            where = os.path.join(folder, name)
            for match in READ_BY_NAME.finditer(code):
                found.setdefault(match.group(1), where)
            for literal in STRING_LITERAL.findall(code):
                for match in EXPANDED.finditer(literal):
                    found.setdefault(match.group(1), where)
    return found


def environment(page, source_dir):
    need_page(page)
    need_man()
    found = variables_read(source_dir)
    if "QOR_CAP_DIR" not in found or "QOR_TRACE_LEVEL" not in found:
        return fail(["the scan of %s missed QOR_CAP_DIR or QOR_TRACE_LEVEL: it is broken" % source_dir])
    text = rendered_text(page)
    findings = ["%s, read in %s, is not in %s" % (name, where, page)
                for name, where in sorted(found.items()) if not contains_token(text, name)]
    print("checked %d variables: %s" % (len(found), " ".join(sorted(found))))
    return fail(findings)


def main(argv):
    if len(argv) == 3 and argv[1] == "render":
        return render(argv[2])
    if len(argv) == 4 and argv[1] == "options":
        return options(argv[2], argv[3])
    if len(argv) == 4 and argv[1] == "example":
        return example(argv[2], argv[3])
    if len(argv) == 4 and argv[1] == "environment":
        return environment(argv[2], argv[3])
    print(__doc__, file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv))
