#!/usr/bin/env python3
"""Markdown tables of benchmark figures, as docs/performance.md shows them.

    scripts/bench-tables.py RUN_A.json [RUN_B.json ...]

Each file is the JSON the benchmark program saves (--figures_json). Prints one
table of every figure with its goal and, per run, the median, the range and the
verdict; then the curves of cost against sections per caller and against rows
per table.
"""
import json
import re
import sys


def load(path):
    with open(path) as f:
        return {figure["name"]: figure for figure in json.load(f)["figures"]}


def number(value):
    return f"{value:.3g}"


def value(figure):
    unit = "x" if figure["unit"] == "x" else figure["unit"]
    return f"{number(figure['median'])}{unit} ({number(figure['min'])}-{number(figure['max'])})"


def goal(figure):
    if not figure["goal"]:
        return "-"
    unit = "x" if figure["unit"] == "x" else " " + figure["unit"]
    return f"<= {number(figure['goal'])}{unit}"


def verdict(figure):
    return {"met": "met", "NOT met": "NOT met"}.get(figure["verdict"], "-")


def figures_table(runs):
    names = list(runs[0])
    header = "| Figure | Goal | " + " | ".join(f"Run {chr(65 + i)} median (range)" for i in range(len(runs)))
    header += " | Verdict " + " / ".join(chr(65 + i) for i in range(len(runs))) + " |"
    lines = [header, "|" + "---|" * (3 + len(runs))]
    for name in names:
        present = [run.get(name) for run in runs]
        first = next(figure for figure in present if figure)
        cells = [value(figure) if figure else "not run" for figure in present]
        verdicts = " / ".join(verdict(figure) if figure else "-" for figure in present)
        lines.append(f"| {name} | {goal(first)} | " + " | ".join(cells) + f" | {verdicts} |")
    return "\n".join(lines)


def median_us(figure, key):
    samples = sorted(figure.get(key) or [])
    return samples[len(samples) // 2] if samples else None


def with_time(figure):
    if figure is None:
        return "-"
    subject = median_us(figure, "subject_us")
    text = f"{number(figure['median'])}{'x' if figure['unit'] == 'x' else figure['unit']}"
    return f"{text} ({subject:.0f} us)" if subject is not None else text


def sections_curve(run):
    kinds = [("select one tile", "handler select one tile, {} section{}"),
             ("read level + tiles filter", "read level + tiles filter, {} section(s)"),
             ("insert one tile", "handler insert one tile, {} section{}")]
    lines = ["| Sections | " + " | ".join(kind for kind, _ in kinds) + " |", "|---|" + "---|" * len(kinds)]
    for sections in (1, 10, 100, 1000):
        cells = []
        for _, pattern in kinds:
            name = pattern.format(sections, "" if sections == 1 else "s")
            cells.append(with_time(run.get(name)))
        lines.append(f"| {sections} | " + " | ".join(cells) + " |")
    return "\n".join(lines)


def rows_curve(run):
    kinds = ["e2e select 1000 tiles, {} / floor", "e2e insert one tile, {} / floor",
             "e2e update one tile, {} / floor", "e2e delete one tile, {} / floor",
             "e2e row ids of 1000 tiles, {} / floor", "e2e bulk insert 1000 tiles, {} / floor",
             "ready after exec (clean stop before), {}", "ready after exec (killed before), {}",
             "USS idle after start, {}", "USS idle after requests, {}"]
    titles = [re.sub(r"(, \{\}|e2e |\{\} )", "", kind) for kind in kinds]
    lines = ["| Tiles | " + " | ".join(titles) + " |", "|---|" + "---|" * len(kinds)]
    for size in ("1k tiles", "10k tiles", "100k tiles"):
        cells = [with_time(run.get(kind.format(size))) for kind in kinds]
        lines.append(f"| {size.split()[0]} | " + " | ".join(cells) + " |")
    return "\n".join(lines)


def main(paths):
    if not paths:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    runs = [load(path) for path in paths]
    print(figures_table(runs))
    print()
    print("Cost against sections per caller (run A):")
    print()
    print(sections_curve(runs[0]))
    print()
    print("Cost against rows per table (run A):")
    print()
    print(rows_curve(runs[0]))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
