#!/usr/bin/env python3
"""Tests of scripts/check-layers.py: it passes a tree that keeps to the
table of rooms and fails, naming the rule, on each kind of breach: a room
that includes one above it or beside it, the platform including the
service's headers or the whole test control API, the service including the
platform's rooms, a public header of a higher room, and a stale table in
docs/architecture.md."""
import os
import subprocess
import sys
import tempfile
import unittest

SCRIPT = os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', '..', 'scripts', 'check-layers.py')


def run(*args):
    done = subprocess.run([sys.executable, SCRIPT] + list(args), capture_output=True, text=True)
    return done.returncode, done.stdout


class Tree:
    """A small tree with the table in its docs and one file per room."""

    def __init__(self):
        self.dir = tempfile.TemporaryDirectory()
        self.root = self.dir.name
        code, table = run('--table')
        assert code == 0
        self.write('docs/architecture.md', '# Architecture\n\n' + table + '\n')
        self.write('platform/host/base/glib_ptr.h', '#pragma once\n')
        self.write('platform/host/log/dlog.cpp', '#include "base/glib_ptr.h"\n#include <string>\n')
        self.write('platform/host/requests/request_glue.h', '#pragma once\n')
        self.write('platform/host/content/database.h', '#pragma once\n')
        self.write('platform/include/dlog.h', '#pragma once\n')
        self.write('platform/include/message_port.h', '#pragma once\n')
        self.write('platform/include/host_control.h', '#pragma once\n')
        self.write('inc/TilesModel.h', '#pragma once\n')
        self.write('src/TilesProvider.cpp', '#include "TilesModel.h"\n#include <dlog.h>\n')

    def write(self, relative, text):
        path = os.path.join(self.root, relative)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, 'w') as f:
            f.write(text)

    def check(self):
        return run('--root', self.root)


def compile_object(directory, relative, text):
    """An object file at `directory`/`relative`.o made from C++ `text`."""
    source = os.path.join(directory, relative + '.cpp')
    os.makedirs(os.path.dirname(source), exist_ok=True)
    with open(source, 'w') as f:
        f.write(text)
    subprocess.run(['c++', '-c', source, '-o', source + '.o'], check=True)
    return source + '.o'


class CheckLayersTest(unittest.TestCase):
    def tree(self):
        tree = Tree()
        self.addCleanup(tree.dir.cleanup)
        return tree

    def test_a_tree_that_keeps_to_the_table_passes(self):
        self.assertEqual(self.tree().check(), (0, ''))

    def test_an_object_that_calls_up_fails_however_the_call_was_declared(self):
        """A function declared in a lower room's header but defined in a
        higher room is a call that runs up: only the objects show it."""
        with tempfile.TemporaryDirectory() as directory:
            lower = compile_object(directory, 'host/content/registry', 'void Registered(); void Tell() { Registered(); }')
            higher = compile_object(directory, 'host/requests/glue', 'void Registered() {}')
            code, out = run('--objects', lower, higher)
            self.assertEqual(code, 1)
            self.assertIn('uses Registered(), defined in requests/', out)
            self.assertIn('content (layer 7) includes only itself and the rooms below it', out)
            down = compile_object(directory, 'host/requests/user', 'void Tell(); void Use() { Tell(); }')
            self.assertEqual(run('--objects', lower, down)[0], 0)

    def test_a_room_that_includes_a_higher_room_fails_with_the_rule(self):
        tree = self.tree()
        tree.write('platform/host/log/dlog.cpp', '#include "requests/request_glue.h"\n')
        code, out = tree.check()
        self.assertEqual(code, 1)
        self.assertIn('platform/host/log/dlog.cpp:1: includes requests/request_glue.h', out)
        self.assertIn('log (layer 1) includes only itself and the rooms below it (base); requests is layer 8', out)

    def test_a_room_beside_on_the_same_layer_is_a_breach_too(self):
        tree = self.tree()
        tree.write('platform/host/ports/port_watch.cpp', '#include <message_port.h>\n')
        tree.write('platform/host/system/vconf.cpp', '#include "message_port.h"\n')
        code, out = tree.check()
        self.assertEqual(code, 1)
        self.assertIn('platform/host/system/vconf.cpp:1', out)
        self.assertNotIn('port_watch.cpp', out)

    def test_the_platform_never_includes_the_services_headers(self):
        tree = self.tree()
        tree.write('platform/host/requests/request_glue.cpp', '#include "TilesModel.h"\n')
        code, out = tree.check()
        self.assertEqual(code, 1)
        self.assertIn("the platform never includes the service's headers", out)

    def test_a_room_includes_its_own_part_of_the_control_api(self):
        tree = self.tree()
        tree.write('platform/host/content/database.cpp', '#include <host_control.h>\n')
        code, out = tree.check()
        self.assertEqual(code, 1)
        self.assertIn('host_control/<room>.h', out)

    def test_the_service_uses_only_the_public_headers(self):
        tree = self.tree()
        tree.write('src/DbHelper.cpp', '#include "content/database.h"\n')
        code, out = tree.check()
        self.assertEqual(code, 1)
        self.assertIn('src/DbHelper.cpp:1', out)
        self.assertIn('public headers', out)

    def test_a_stale_table_in_the_docs_fails(self):
        tree = self.tree()
        tree.write('docs/architecture.md', '# Architecture\n\n| layer | room | holds |\n')
        code, out = tree.check()
        self.assertEqual(code, 1)
        self.assertIn('docs/architecture.md', out)


if __name__ == '__main__':
    unittest.main()
