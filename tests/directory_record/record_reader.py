"""A reader of directory records that shares nothing with their writer."""

import re


def plain(word):
    """The bytes that an escaped word stands for."""
    return re.sub(rb"\\([0-3][0-7]{2})", lambda match: bytes([int(match[1], 8)]), word)


def read_record(path):
    """The entries by path, and the comments, of an mtree file with full paths."""
    entries, comments = {}, []
    with open(path, "rb") as file:
        for line in file.read().splitlines():
            if line.startswith(b"#"):
                comments.append(line)
                continue
            name, *words = line.split(b" ")
            assert name not in entries, name
            entries[plain(name)] = dict(word.split(b"=", 1) for word in words)
    return entries, comments
