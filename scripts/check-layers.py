#!/usr/bin/env python3
"""Checks that the host platform's rooms depend only on the rooms below them.

The host platform (platform/host/) is cut into one folder per concern, a
"room", and the rooms into layers (the table below, which docs/architecture.md
shows). A room may include its own headers and those of the rooms on lower
layers, never one on its own layer or above: where a lower room must tell a
higher one something, it records it on an object the higher room passed down
or calls a callback registered from above. The public headers (platform/include/,
and the content library's declarations in inc/) belong to the room that
implements them. The service (src/, inc/) may include the public headers and
its own, never the platform's rooms nor the test control API.

    scripts/check-layers.py                  check every include (from the sources)
    scripts/check-layers.py --objects O...   check that no object of a room refers
                                             to a function or variable defined in a
                                             room it may not include (after a build)
    scripts/check-layers.py --table          print the table for docs/architecture.md
    scripts/check-layers.py --root DIR       check the tree at DIR instead of this one

Exit code 0 when everything keeps to the table, 1 with one line per breach.
It also fails when docs/architecture.md does not show the table as it is here.
"""
import argparse
import os
import re
import subprocess
import sys

TOP = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

# (layer, room, what it holds): the one table of the rooms.
ROOMS = [
    (0, 'base', 'owning GLib handles, failure injection and call counts, the clock and sleeps, '
                'termination signals, the reset of the test control API, the request report'),
    (1, 'log', 'the platform log, its rate limit and budgets, log capture, the system\'s texts that '
               'name a reason, the level the configuration gives, the journal\'s line form'),
    (1, 'bundle', 'bundles and their limits'),
    (1, 'stats', 'the service\'s statistics: requests, answers, refusals by reason, budget hits and '
                 'latency histograms per request kind and interface; messages sent and dropped'),
    (2, 'config', 'the integrator\'s configuration, the table of its keys and their defaults, platform '
                  'paths, the settings store, small shared database files, file modes'),
    (3, 'identity', 'application ids and their bus names, the identity mode, platform users and ids'),
    (4, 'registry', 'installed packages and applications, the web-application list, the bus policy'),
    (5, 'bus', 'the one bus connection, its names and the hooks of the rooms that export objects on it, '
               'the callers\' credentials, the notification signals, sd-bus connections on the GLib loop '
               'and their bodies as GVariant values'),
    (6, 'ports', 'message ports, their delivery and watches, held sends'),
    (6, 'system', 'configuration keys, power-off, system information'),
    (6, 'confinement', 'the strict-confinement switch and the request confinement record'),
    (7, 'content', 'the content library on SQLite'),
    (8, 'requests', 'the two request interfaces: typed requests, their handlers, their transports (the bus, the direct '
                    'request socket), '
                    'replies with reason codes, the reasons a refusal is counted under, the idle trim'),
    (8, 'admin', 'the operator\'s interface: statistics, backup, restore and check of the tiles database, '
                 'and its caller\'s side for tilvanectl'),
    (9, 'app', 'the service-application loop, bus supervision, what the service manager is told, the '
               'run-time configuration at start and on SIGHUP'),
    (9, 'client', 'the client library'),
]

# Public headers: the room that implements what they declare.
PUBLIC_HEADERS = {
    'platform/include/app_info.h': 'registry',
    'platform/include/bundle.h': 'bundle',
    'platform/include/bundle_ptr.h': 'bundle',
    'platform/include/confinement_policy.h': 'confinement',
    'platform/include/content_provider_dispatch.h': 'content',
    'platform/include/data_control.h': 'requests',
    'platform/include/device_power.h': 'system',
    'platform/include/dlog.h': 'log',
    'platform/include/message_port.h': 'ports',
    'platform/include/package_manager.h': 'registry',
    'platform/include/qeb_app_list.h': 'registry',
    'platform/include/service_app.h': 'app',
    'platform/include/system_info.h': 'system',
    'platform/include/tzplatform_config.h': 'config',
    'platform/include/vconf.h': 'system',
    'platform/include/tilvane_reason.h': 'base',
    'platform/include/tilvane_version.h': 'base',
    'platform/include/tilvane_schema.h': 'requests',
    'platform/include/tilvane_client.h': 'client',
    'platform/include/tilvane_publisher.h': 'client',
    'platform/include/tilvane_c.h': 'client',
    'platform/include/host_control/base.h': 'base',
    'platform/include/host_control/log.h': 'log',
    'platform/include/host_control/config.h': 'config',
    'platform/include/host_control/identity.h': 'identity',
    'platform/include/host_control/registry.h': 'registry',
    'platform/include/host_control/ports.h': 'ports',
    'platform/include/host_control/system.h': 'system',
    'platform/include/host_control/app.h': 'app',
    'inc/ContentHelper.h': 'content',
    'inc/ContentDbConnection.h': 'content',
    'inc/ContentProviderParam.h': 'content',
    'inc/DBLock.h': 'content',
    'inc/SQLiteCursor.h': 'content',
    'inc/SharedQueryObject.h': 'content',
}
# Headers made at build time from a room's files.
GENERATED_HEADERS = {
    'request_interfaces_xml.h': 'requests',
    'request_wire.h': 'requests',
    'message_port_xml.h': 'ports',
    'message_port_wire.h': 'ports',
    'tilvane_version.h': 'base',
}
# The whole test control API: for tests and tools, never for the platform or the service.
CONTROL_API = 'platform/include/host_control.h'

LAYER = {room: layer for layer, room, _ in ROOMS}
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]')


def rule_text(room):
    below = [r for _, r, _ in ROOMS if LAYER[r] < LAYER[room]]
    return ('%s (layer %d) includes only itself and the rooms below it (%s)' %
            (room, LAYER[room], ', '.join(below) if below else 'none'))


def table():
    lines = ['| layer | room | holds |', '|---|---|---|']
    for layer, room, holds in ROOMS:
        lines.append('| %d | `%s/` | %s |' % (layer, room, holds))
    return '\n'.join(lines)


def owner_of_path(relative):
    """The room a file of the tree belongs to; 'service' for the service's own
    files; None for the rest (tests, tools, system headers)."""
    if relative in PUBLIC_HEADERS:
        return PUBLIC_HEADERS[relative]
    if relative == CONTROL_API:
        return 'control-api'
    parts = relative.split('/')
    if parts[:2] == ['platform', 'host'] and len(parts) > 3:
        return parts[2]
    if parts[0] in ('src', 'inc'):
        return 'service'
    return None


def resolve(including, quote, name):
    """The file of the tree that `#include` names, relative to the top; None
    for a system header."""
    candidates = []
    if quote == '"':
        candidates.append(os.path.join(os.path.dirname(including), name))
    candidates += [os.path.join('platform/host', name), os.path.join('platform/include', name),
                   os.path.join('inc', name)]
    for candidate in candidates:
        candidate = os.path.normpath(candidate)
        if os.path.isfile(os.path.join(TOP, candidate)):
            return candidate
    base = os.path.basename(name)
    if base in GENERATED_HEADERS:
        return 'generated/' + base
    return None


def owner_of_include(including, quote, name):
    target = resolve(including, quote, name)
    if target is None:
        return None, name
    if target.startswith('generated/'):
        return GENERATED_HEADERS[os.path.basename(target)], target
    return owner_of_path(target), target


def breach(room, target_owner, target=''):
    """Why `room` may not depend on `target_owner` (in file `target`, when an
    include names one); None when it may."""
    if target_owner is None or target_owner == room:
        return None
    if room == 'service':
        if target_owner == 'control-api':
            return 'the service never uses the test control API'
        if target.startswith('platform/host/') or (target.startswith('generated/') and
                                                   target != 'generated/tilvane_version.h'):
            return 'the service uses the platform through its public headers (platform/include, inc) only'
        return None
    if target_owner == 'service':
        return 'the platform never includes the service\'s headers; what it needs of the service comes from ' \
               'configuration or is passed in at registration'
    if target_owner == 'control-api':
        return 'a room includes its own part of the test control API (host_control/<room>.h), not all of it'
    if target_owner in LAYER and LAYER[target_owner] >= LAYER[room]:
        return rule_text(room) + '; %s is layer %d' % (target_owner, LAYER[target_owner])
    return None


def checked_files():
    """(path relative to the top, room) of every file that keeps to the table."""
    for folder in ('platform/host', 'platform/include', 'src', 'inc', 'packaging'):
        for root, _, names in os.walk(os.path.join(TOP, folder)):
            for name in sorted(names):
                if not name.endswith(('.h', '.cpp', '.c', '.in')):
                    continue
                relative = os.path.relpath(os.path.join(root, name), TOP)
                if folder == 'packaging':
                    room = 'client' if relative == 'packaging/client_library.cpp' else None
                else:
                    room = owner_of_path(relative)
                if room is not None and room != 'control-api':
                    yield relative, room


def check_includes():
    problems = []
    for relative, room in checked_files():
        with open(os.path.join(TOP, relative), encoding='utf-8', errors='replace') as f:
            for number, line in enumerate(f, 1):
                m = INCLUDE.match(line)
                if not m:
                    continue
                target_owner, target = owner_of_include(relative, m.group(1), m.group(2))
                why = breach(room, target_owner, target)
                if why:
                    problems.append('%s:%d: includes %s (%s): %s' % (relative, number, m.group(2), target, why))
    return problems


def symbols(objects):
    """Per object: (room, strong definitions, undefined references)."""
    result = []
    for path in objects:
        match = re.search(r'/host/([a-z_]+)/[^/]+\.o$', path)
        generated = re.search(r'/generated/([a-z_]+)\.cpp\.o$', path)
        if match:
            room = match.group(1)
        elif generated and generated.group(1) + '.h' in GENERATED_HEADERS:
            room = GENERATED_HEADERS[generated.group(1) + '.h']
        else:
            continue
        out = subprocess.run(['nm', '-P', path], check=True, capture_output=True, text=True).stdout
        defined, undefined = set(), set()
        for line in out.splitlines():
            fields = line.split()
            if len(fields) < 2:
                continue
            name, kind = fields[0], fields[1]
            if kind == 'U':
                undefined.add(name)
            elif kind in 'TDBR':
                defined.add(name)
        result.append((path, room, defined, undefined))
    return result


def demangle(name):
    out = subprocess.run(['c++filt', name], capture_output=True, text=True).stdout.strip()
    return out or name


def check_objects(objects):
    found = symbols(objects)
    definer = {}
    for path, room, defined, _ in found:
        for name in defined:
            definer[name] = room
    problems = []
    for path, room, _, undefined in found:
        for name in sorted(undefined):
            target = definer.get(name)
            why = breach(room, target)
            if why:
                problems.append('%s: uses %s, defined in %s/: %s' %
                                (os.path.relpath(path), demangle(name), target, why))
    return problems


def check_docs():
    path = os.path.join(TOP, 'docs/architecture.md')
    with open(path, encoding='utf-8') as f:
        if table() not in f.read():
            return ['docs/architecture.md: does not show the table of rooms as scripts/check-layers.py has it '
                    '(scripts/check-layers.py --table prints it)']
    return []


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument('--objects', nargs='+', help='object files of the platform library')
    parser.add_argument('--table', action='store_true', help='print the table of rooms')
    parser.add_argument('--root', help='the top of the tree to check (default: this one)')
    args = parser.parse_args()
    if args.root:
        global TOP
        TOP = os.path.abspath(args.root)
    if args.table:
        print(table())
        return 0
    problems = check_objects(args.objects) if args.objects else check_includes() + check_docs()
    for problem in problems:
        print(problem)
    what = 'objects' if args.objects else 'includes'
    print('check-layers: %s: %s' % (what, '%d breach(es) of the layers' % len(problems) if problems else 'ok'),
          file=sys.stderr)
    return 1 if problems else 0


if __name__ == '__main__':
    sys.exit(main())
