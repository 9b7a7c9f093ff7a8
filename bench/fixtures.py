# bench/fixtures.py: what the figures run on: spool files as smtpserver
# writes them, prepared daemon entries, and the daemons themselves
# (quelt-refd, a private clamd and rspamd), each stopped again by the
# Daemons owner in reverse order of starting.
import os
import subprocess
import threading
import time

from meter import BenchError

BODY_LINE = "Lorem ipsum dolor sit amet, consectetur adipiscing elit, sed do eiusmod.\n"
PASS_REPLY = "0 250 2.6.0 Okey. Go ahead!"
SECRET = "bench-secret"
EICAR = r"X5O!P%@AP[4\PZX54(P^)7CC)7}$EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*"


def spool_head(number, first_header=""):
    """Envelope, ten header lines and the empty line before the body."""
    extra = first_header + "\n" if first_header else ""
    return f"""external
rcvdfrom mx.sender.example (mx.sender.example [192.0.2.10]:41322 "EHLO mx.sender.example" rhost-flags-OK-OK-OK-OK)
comment mx.sender.example [192.0.2.10]:41322 "EHLO mx.sender.example" smtp-auth: <none> rhost-flags-OK-OK-OK-OK)
with ESMTP
from <newsletter@sender.example>
todsn NOTIFY=FAILURE,DELAY ORCPT=rfc822;john.doe@corp.example INRCPT=rfc822;john.doe@corp.example INFROM=rfc822;newsletter@sender.example
to <john.doe@corp.example>
env-end
{extra}Return-Path: <newsletter@sender.example>
Received: from mx.sender.example (mx.sender.example [192.0.2.10]) by mail.corp.example
Date: Mon, 2 Mar 2026 10:15:03 +0100
From: Sender News <newsletter@sender.example>
To: john.doe@corp.example
Subject: Monthly update number {number}
Message-ID: <20260302091503.{number}@sender.example>
MIME-Version: 1.0
Content-Type: text/plain; charset=us-ascii
Content-Transfer-Encoding: 7bit

"""


def make_spool(path, number, body_bytes, first_header=""):
    """A spool file with a body of exactly body_bytes bytes of text lines."""
    block = BODY_LINE * (1024 * 1024 // len(BODY_LINE) + 1)
    with open(path, "w") as spool:
        spool.write(spool_head(number, first_header))
        left = body_bytes
        while left > 0:
            piece = block[:left]
            spool.write(piece)
            left -= len(piece)


def make_small_spools(directory, count):
    """count spool files of about 4 KiB (43 body lines); returns the paths."""
    os.makedirs(directory, exist_ok=True)
    body = BODY_LINE * 43
    paths = []
    for number in range(1, count + 1):
        path = os.path.join(directory, f"{number}.spool")
        with open(path, "w") as spool:
            spool.write(spool_head(number) + body)
        paths.append(path)
    return paths


def message_part(spool_path):
    with open(spool_path) as spool:
        text = spool.read()
    return text[text.index("env-end\n") + len("env-end\n"):]


def prepare_entries(base, prefix, spool_paths, envelope_lines):
    """Daemon entries as the filter makes them: .envelope (the envelope
    lines envelope_lines keeps) and .msg (the message part). Returns the
    entry directories."""
    msgs = os.path.join(base, "msgs")
    if not os.path.isdir(msgs):
        # As the filter makes it (sticky, 1770); it refuses any other.
        os.mkdir(msgs)
        os.chmod(msgs, 0o1770)
    entries = []
    for number, path in enumerate(spool_paths, 1):
        entry = os.path.join(base, "msgs", f"{prefix}.{number}")
        os.makedirs(entry)
        with open(path) as spool:
            text = spool.read()
        end = text.index("env-end\n") + len("env-end\n")
        with open(os.path.join(entry, ".envelope"), "w") as envelope:
            envelope.writelines(line for line in text[:end].splitlines(keepends=True)
                                if envelope_lines(line))
        with open(os.path.join(entry, ".msg"), "w") as msg:
            msg.write(text[end:])
        entries.append(entry)
    return entries


def write_lines(path, lines):
    with open(path, "w") as out:
        out.writelines(line + "\n" for line in lines)


def expect_replies(path, prefix, count, base=None):
    """path holds count lines beginning with prefix, and no daemon entry is
    left in base."""
    with open(path) as replies:
        got = sum(1 for line in replies if line.startswith(prefix))
    if got != count:
        raise BenchError(f"{path} holds {got} replies '{prefix}', want {count}")
    if base is not None:
        left = os.listdir(os.path.join(base, "msgs")) if os.path.isdir(os.path.join(base, "msgs")) else []
        if left:
            raise BenchError(f"entries left in {base}msgs: {left[:3]}")


def wait_for_socket(path, what, seconds=30):
    deadline = time.monotonic() + seconds
    while not os.path.exists(path):
        if time.monotonic() > deadline:
            raise BenchError(f"{what} did not start")
        time.sleep(0.1)


class Daemons:
    """Owns the daemons the bench starts; stop() ends them, the last started
    first (a daemon before its engines). A daemon's standard error goes to a
    reader thread, which hands each line with its time to on_line."""

    def __init__(self):
        self.started = []

    def start(self, argv, on_line=None, ready=None):
        process = subprocess.Popen(argv, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                   stderr=subprocess.PIPE, text=True)
        self.started.append(process)
        if ready is not None:
            first = process.stderr.readline()
            if not first.startswith(ready):
                raise BenchError(f"{argv[0]} did not start: {first.strip()}")
        reader = threading.Thread(target=self._drain, args=(process, on_line), daemon=True)
        reader.start()
        return process

    @staticmethod
    def _drain(process, on_line):
        for line in process.stderr:
            if on_line is not None:
                on_line(time.monotonic(), line.rstrip("\n"))

    def stop(self, process):
        if process.poll() is None:
            process.terminate()
        try:
            process.wait(timeout=20)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()
        self.started.remove(process)

    def stop_all(self):
        for process in reversed(list(self.started)):
            self.stop(process)


def start_refd(daemons, refd, base, *options, on_line=None):
    os.makedirs(base, exist_ok=True)
    return daemons.start([refd, "--log-stderr", "--basedir", base, *options],
                         on_line=on_line, ready="quelt-refd: listening on ")


def start_clamd(daemons, directory, socket_name="clamd.sock"):
    """A private clamd with one signature (the anti-virus test string's
    hash) and its cache of clean results off, so that repetitions scan."""
    os.makedirs(os.path.join(directory, "db"), exist_ok=True)
    eicar = os.path.join(directory, "eicar.com")
    with open(eicar, "w") as out:
        out.write(EICAR)
    signature = subprocess.run(["sigtool", "--md5", eicar], check=True, capture_output=True,
                               text=True).stdout
    with open(os.path.join(directory, "db", "bench.hdb"), "w") as out:
        out.write(signature)
    conf = os.path.join(directory, "clamd.conf")
    socket = os.path.join(directory, socket_name)
    with open(conf, "w") as out:
        out.write(f"LocalSocket {socket}\nDatabaseDirectory {directory}/db\n"
                  "Foreground yes\nDisableCache yes\n")
    process = daemons.start(["clamd", "-c", conf])
    wait_for_socket(socket, "clamd")
    return process, conf, socket


def start_rspamd(daemons, top, conf):
    """A private rspamd with the tests' offline configuration less its milter
    headers (a clean message then passes with nothing added, as rspamc sees
    it). Start-up reads every rule: up to a minute on a loaded machine."""
    os.makedirs(conf, exist_ok=True)
    source = os.path.join(top, "tests/quelt-refd/rspamd-conf")
    with open(os.path.join(source, "rspamd.conf")) as text, \
            open(os.path.join(conf, "rspamd.conf"), "w") as out:
        out.write(text.read())
    with open(os.path.join(source, "rspamd.conf.local.override")) as text, \
            open(os.path.join(conf, "rspamd.conf.local.override"), "w") as out:
        out.writelines(line for line in text if "milter_headers" not in line)
    process = daemons.start(["rspamd", "-f", "-i", "-c", f"{conf}/rspamd.conf",
                             "--var", f"LOCAL_CONFDIR={conf}", "--var", f"DBDIR={conf}",
                             "--var", f"RUNDIR={conf}"])
    probe = os.path.join(conf, "probe.eml")
    with open(probe, "w") as out:
        out.write("Subject: probe\n\nprobe\n")
    socket = os.path.join(conf, "rspamd.sock")
    deadline = time.monotonic() + 120
    while True:
        answer = subprocess.run(["rspamc", "-h", socket, "-t", "1", probe],
                                capture_output=True, text=True)
        if any(line.startswith("Action:") for line in answer.stdout.splitlines()):
            return process, socket
        if time.monotonic() > deadline or process.poll() is not None:
            raise BenchError("rspamd did not start")
        time.sleep(0.2)
