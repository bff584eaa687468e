#!/usr/bin/env python3
"""Publishes one section with two tiles through the C interface of
libtilvane-client with ctypes, all or nothing, and reads it back.

Run it as an application that supports the launcher:
    TILVANE_APP_ID=org.example.videos.main python3 publish.py
TILVANE_CLIENT_LIBRARY names the library file when it is not installed where
the dynamic loader looks (default: libtilvane-client.so.0).
"""
import ctypes
import os
import sys

# The values of tilvane_c.h.
TILVANE_OK = 0
TILVANE_REPLACE = 1
TILVANE_SECTION_TITLE = 0x202
TILVANE_TILE_TITLE = 0x303
TILVANE_TILE_IMAGE_URL = 0x30B
TILVANE_TILE_IMAGE_RATIO = 0x317
TILVANE_RATIO_WIDE = 1


def load(path):
    lib = ctypes.CDLL(path)
    handle = ctypes.c_void_p
    signatures = {
        "tilvane_publisher_new": (handle, [ctypes.c_char_p, ctypes.c_char_p]),
        "tilvane_publisher_free": (None, [handle]),
        "tilvane_publisher_publish": (ctypes.c_int, [handle, handle, ctypes.c_int]),
        "tilvane_publisher_read": (ctypes.c_int, [handle, ctypes.POINTER(handle)]),
        "tilvane_publisher_reason": (ctypes.c_char_p, [handle]),
        "tilvane_content_new": (handle, []),
        "tilvane_content_free": (None, [handle]),
        "tilvane_content_add_section": (handle, [handle]),
        "tilvane_content_section_count": (ctypes.c_int, [handle]),
        "tilvane_content_section": (handle, [handle, ctypes.c_int]),
        "tilvane_content_equal": (ctypes.c_int, [handle, handle]),
        "tilvane_section_add_tile": (handle, [handle]),
        "tilvane_section_tile_count": (ctypes.c_int, [handle]),
        "tilvane_section_tile": (handle, [handle, ctypes.c_int]),
        "tilvane_row_set_text": (ctypes.c_int, [handle, ctypes.c_int, ctypes.c_char_p]),
        "tilvane_row_set_int": (ctypes.c_int, [handle, ctypes.c_int, ctypes.c_int64]),
        "tilvane_row_get_text": (ctypes.c_char_p, [handle, ctypes.c_int]),
        "tilvane_error_name": (ctypes.c_char_p, [ctypes.c_int]),
    }
    for name, (result, arguments) in signatures.items():
        function = getattr(lib, name)
        function.restype = result
        function.argtypes = arguments
    return lib


def main():
    lib = load(os.environ.get("TILVANE_CLIENT_LIBRARY", "libtilvane-client.so.0"))
    publisher = lib.tilvane_publisher_new(None, None)
    content = lib.tilvane_content_new()
    section = lib.tilvane_content_add_section(content)
    lib.tilvane_row_set_text(section, TILVANE_SECTION_TITLE, "Evening news".encode())
    headlines = lib.tilvane_section_add_tile(section)
    lib.tilvane_row_set_text(headlines, TILVANE_TILE_TITLE, "Headlines".encode())
    lib.tilvane_row_set_text(headlines, TILVANE_TILE_IMAGE_URL, b"https://example.org/news/headlines.jpg")
    weather = lib.tilvane_section_add_tile(section)
    lib.tilvane_row_set_text(weather, TILVANE_TILE_TITLE, "Wetter für die Woche".encode())
    lib.tilvane_row_set_int(weather, TILVANE_TILE_IMAGE_RATIO, TILVANE_RATIO_WIDE)

    read = ctypes.c_void_p()
    status = lib.tilvane_publisher_publish(publisher, content, TILVANE_REPLACE)
    if status == TILVANE_OK:
        status = lib.tilvane_publisher_read(publisher, ctypes.byref(read))
    if status != TILVANE_OK:
        print("%s: %s" % (lib.tilvane_error_name(status).decode(),
                          lib.tilvane_publisher_reason(publisher).decode()), file=sys.stderr)
        return 1
    same = lib.tilvane_content_equal(read, content) == 1
    read_section = lib.tilvane_content_section(read, 0)
    titles = [lib.tilvane_row_get_text(lib.tilvane_section_tile(read_section, i), TILVANE_TILE_TITLE).decode()
              for i in range(lib.tilvane_section_tile_count(read_section))]
    print("read back: %s" % ", ".join(titles))
    lib.tilvane_content_free(read)
    lib.tilvane_content_free(content)
    lib.tilvane_publisher_free(publisher)
    return 0 if same else 1


if __name__ == "__main__":
    sys.exit(main())
