#!/usr/bin/env python3
"""Runs a Windows test program against a modem on a real serial device.

usage: modem_on_pty.py PREFIX COMMAND [ARGUMENT ...]

Makes a pseudo-terminal, links it as a COM port into the Wine prefix, and runs the
command once for the reboot (whose bytes are compared) and once for the replies, with
the number of the port in CORVEL_TEST_COM_PORT. Exit status 0 when all of it held.
"""
import contextlib
import fcntl
import os
import pathlib
import select
import subprocess
import sys
import tempfile
import termios
import threading
import tty

# Far from the ports that Wine gives to the machine's own serial devices.
PORT_NUMBERS = range(60, 100)
REBOOT = b"at+xlog=4\r"
REPLIES = {b"at+ok\r": b"\r\nOK\r\n", b"at+error\r": b"\r\nERROR\r\n", b"at+partial\r": b"\r\n+PART"}
PROGRAM_TIME_LIMIT_S = 60


class TerminalOwner:
    """A process that the terminal belongs to, as its controlling terminal.

    Wine's server leads a session that has none: by opening a terminal without an owner it would get it, and
    the hang-up when the terminal goes away too, which the server and all that it serves do not survive.
    """

    def __init__(self, terminal):
        taken, tell = os.pipe()
        wait, self._end = os.pipe()
        self._process = os.fork()
        if self._process == 0:
            os.close(self._end)
            os.setsid()
            fcntl.ioctl(terminal, termios.TIOCSCTTY, 0)
            os.write(tell, b"1")
            os.read(wait, 1)  # Until the parent ends, in whatever way.
            os._exit(0)
        os.close(tell)
        os.close(wait)
        has_taken = os.read(taken, 1) != b""
        os.close(taken)
        if not has_taken:
            sys.exit("modem_on_pty.py: the terminal could not be given an owner")

    def end(self):
        os.close(self._end)
        os.waitpid(self._process, 0)


class Modem:
    """Answers commands on its end of a pseudo-terminal and keeps what it received."""

    def __init__(self):
        # The far end stays open here too, so that the program's closing it is no hang-up.
        self.near, self.far = os.openpty()
        tty.setraw(self.far)
        self.device = os.ttyname(self.far)
        self._owner = TerminalOwner(self.far)
        self._received = b""
        self._command = b""
        self._wake, self._stop = os.pipe()
        self._thread = threading.Thread(target=self._run)

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        os.close(self._stop)
        self._thread.join()
        self._owner.end()
        for descriptor in (self._wake, self.near, self.far):
            os.close(descriptor)

    def _run(self):
        while True:
            ready, _, _ = select.select([self.near, self._wake], [], [])
            if self.near not in ready:
                return
            data = os.read(self.near, 4096)
            self._received += data
            self._command += data
            while b"\r" in self._command:
                line, _, self._command = self._command.partition(b"\r")
                os.write(self.near, REPLIES.get(line + b"\r", b""))

    def taken(self):
        """What arrived since the last call. The sender is gone, so all of it is in the terminal."""
        while select.select([self.near], [], [], 0)[0]:
            threading.Event().wait(0.01)
        received, self._received = self._received, b""
        return received


@contextlib.contextmanager
def com_port(prefix, device):
    """The device as a COM port of the prefix: yields its number."""
    folder = pathlib.Path(prefix) / "dosdevices"
    for number in PORT_NUMBERS:
        link = folder / f"com{number}"
        if link.is_symlink() and not link.exists():
            # Of a run that was killed; its terminal is gone.
            link.unlink(missing_ok=True)
        try:
            link.symlink_to(device)
            break
        except FileExistsError:
            continue
    else:
        sys.exit(f"modem_on_pty.py: no free COM port in {folder}")
    try:
        yield number
    finally:
        link.unlink()


def run(prefix, command, tests, number):
    environment = dict(os.environ, WINEPREFIX=prefix, CORVEL_TEST_COM_PORT=str(number))
    # A file, not a pipe: a server process that Wine leaves running would keep a pipe open.
    with tempfile.TemporaryFile() as output:
        status = subprocess.run(command + [f"--gtest_filter={tests}"], env=environment, stdout=output,
                                stderr=subprocess.STDOUT, timeout=PROGRAM_TIME_LIMIT_S, check=False).returncode
        output.seek(0)
        text = output.read().decode(errors="replace")
    print(text)
    if "[  PASSED  ]" not in text or "SKIPPED" in text:
        return False
    return status == 0


def compare(what, expected, received):
    same = expected == received
    print(f"{what}: received {received!r}" + ("" if same else f", expected {expected!r}"))
    return same


def in_any_order(commands):
    """The program runs its tests in an order of its own."""
    return sorted(commands.splitlines(keepends=True))


def main():
    prefix, command = sys.argv[1], sys.argv[2:]
    with Modem() as modem, com_port(prefix, modem.device) as number:
        good = run(prefix, command, "*.SendsTheReboot", number)
        good = compare("reboot", REBOOT, modem.taken()) and good
        good = run(prefix, command, "-*.SendsTheReboot", number) and good
        good = compare("commands", sorted(REPLIES), in_any_order(modem.taken())) and good
    sys.exit(0 if good else 1)


if __name__ == "__main__":
    main()
