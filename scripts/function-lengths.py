#!/usr/bin/env python3
"""Lists the functions of C and C++ files longer than a limit.

A function's length is counted from the line its name is on to the line of
its closing brace. Lambdas and local classes count towards the function they
are written in.

    scripts/function-lengths.py [--limit N] [--all] DIR_OR_FILE...
"""
import argparse
import os
import re
import sys

SOURCE_SUFFIXES = ('.c', '.cc', '.cpp', '.h', '.hpp')
SCOPE_WORDS = re.compile(r'\b(namespace|class|struct|union|enum)\b')
CONTROL_WORDS = re.compile(r'^\s*(if|for|while|switch|catch|do|else|try)\b')


def strip(text):
    """Blanks comments, string and character literals and preprocessor lines,
    keeping every newline so that line numbers stay right."""
    out = []
    i, n = 0, len(text)
    line_start = True
    while i < n:
        c = text[i]
        if line_start and c == '#':
            while i < n and text[i] != '\n':
                if text[i] == '\\' and i + 1 < n and text[i + 1] == '\n':
                    out.append('\n')
                    i += 2
                    continue
                i += 1
            continue
        if c == '/' and text.startswith('//', i):
            while i < n and text[i] != '\n':
                i += 1
            continue
        if c == '/' and text.startswith('/*', i):
            end = text.find('*/', i + 2)
            end = n if end < 0 else end + 2
            out.append('\n' * text.count('\n', i, end))
            i = end
            continue
        if c == 'R' and text.startswith('R"', i):
            m = re.match(r'R"([^(]*)\(', text[i:])
            if m:
                close = ')' + m.group(1) + '"'
                end = text.find(close, i + len(m.group(0)))
                end = n if end < 0 else end + len(close)
                out.append('""' + '\n' * text.count('\n', i, end))
                i = end
                continue
        if c in '"\'':
            j = i + 1
            while j < n and text[j] != c:
                j += 2 if text[j] == '\\' else 1
            out.append(c + c)
            i = j + 1
            continue
        out.append(c)
        if c == '\n':
            line_start = True
        elif not c.isspace():
            line_start = False
        i += 1
    return ''.join(out)


def functions(path):
    text = strip(open(path, encoding='utf-8', errors='replace').read())
    results = []
    stack = []  # 'scope' | 'function' | 'other'
    header_start = 0
    i = 0
    while i < len(text):
        c = text[i]
        if c in ';':
            header_start = i + 1
        elif c == '{':
            header = text[header_start:i]
            inside_function = any(entry[0] != 'scope' for entry in stack)
            kind = 'other'
            if not inside_function:
                flat = ' '.join(header.split())
                if SCOPE_WORDS.search(flat) and '(' not in flat.split('{')[0].split(SCOPE_WORDS.search(flat).group(0))[0] \
                        and not re.search(r'\)\s*(const|noexcept|override|final|\s)*$', flat):
                    kind = 'scope'
                elif flat.startswith('extern') and '(' not in flat:
                    # extern "C" { ... }: a block of declarations, not a function;
                    # extern "C" int f(...) { ... } is a function like any other.
                    kind = 'scope'
                elif '(' in flat and not CONTROL_WORDS.match(flat) and not flat.rstrip().endswith('='):
                    kind = 'function'
            if kind == 'function':
                offset = header_start + len(header) - len(header.lstrip())
                name_match = re.search(r'([~\w:<>]+)\s*\(', header)
                name = name_match.group(1) if name_match else '?'
                if name_match:
                    offset = header_start + name_match.start(1)
                stack.append(('function', text.count('\n', 0, offset) + 1, name))
            else:
                stack.append((kind, 0, ''))
            header_start = i + 1
        elif c == '}':
            if stack:
                kind, first, name = stack.pop()
                if kind == 'function':
                    last = text.count('\n', 0, i) + 1
                    results.append((last - first + 1, name, first))
            header_start = i + 1
        i += 1
    return results


def sources(paths):
    for path in paths:
        if os.path.isfile(path):
            yield path
            continue
        for root, _, names in os.walk(path):
            for name in sorted(names):
                if name.endswith(SOURCE_SUFFIXES):
                    yield os.path.join(root, name)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument('--limit', type=int, default=60)
    parser.add_argument('--all', action='store_true', help='list every function')
    parser.add_argument('paths', nargs='+')
    args = parser.parse_args()
    rows = []
    for path in sources(args.paths):
        for length, name, line in functions(path):
            rows.append((length, path, line, name))
    rows.sort(reverse=True)
    over = [row for row in rows if row[0] > args.limit]
    for length, path, line, name in (rows if args.all else over):
        print('%5d  %s:%d  %s' % (length, path, line, name))
    print('functions: %d; over %d lines: %d; longest: %s' %
          (len(rows), args.limit, len(over),
           '%d (%s in %s)' % (rows[0][0], rows[0][3], rows[0][1]) if rows else 'none'))
    return 0


if __name__ == '__main__':
    sys.exit(main())
