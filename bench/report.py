#!/usr/bin/env python3
"""Writes what script/bench has measured (build/bench/*.json) into docs/: the tables between the
marks in performance.md, and one picture for each curve."""
import glob
import json
import math
import os
import platform
import re
import subprocess
from xml.sax.saxutils import escape

ARCHITECTURES = [('i386', '32 bits'), ('native', '64 bits')]
PAGE = 'docs/performance.md'
COLOURS = ['#c0392b', '#2471a3', '#1e8449', '#b7950b', '#7d3c98', '#616a6b']


def load(suffix):
    figures = {}
    for name, _ in ARCHITECTURES:
        path = f'build/bench/{name}{suffix}.json'
        if os.path.exists(path):
            with open(path) as file:
                figures[name] = json.load(file)
    return figures


def number(value):
    return f'{value:,.0f}' if value >= 100 else f'{value:.1f}' if value >= 10 else f'{value:.2f}'


def named(items, name):
    return next((item for item in items if item['name'] == name), None)


def row_lines(row, others):
    """One table: the variants' medians and ranges, then the goals; `others`: the same row for each
    architecture, or None."""
    heads = [title for _, title in ARCHITECTURES]
    yield f"### {row['name']}"
    yield ''
    yield f"| {row['unit']} | " + ' | '.join(heads) + ' |'
    yield '|---|' + '---|' * len(heads)
    for variant in row['variants']:
        cells = []
        for other in others:
            v = other and named(other['variants'], variant['name'])
            cells.append(f"{number(v['median'])} ({number(v['low'])} to {number(v['high'])})" if v else '')
        yield f"| {variant['name']} | " + ' | '.join(cells) + ' |'
    yield ''
    if not row['goals']:
        return
    yield '| goal | ' + ' | '.join(heads) + ' |'
    yield '|---|' + '---|' * len(heads)
    for index, goal in enumerate(row['goals']):
        cells = []
        for other in others:
            g = other and other['goals'][index]
            cells.append(f"{number(g['ratio'])}, {'met' if g['met'] else '**missed**'}" if g else '')
        limits = [other['goals'][index]['limit'] for other in others if other]
        limit = ' / '.join(f'{value:g}' for value in dict.fromkeys(limits))
        reads = goal['reads'] or row['unit']
        yield f"| {goal['variant']}: at most {limit} {reads} | " + ' | '.join(cells) + ' |'
    yield ''


def tables():
    figures = load('')
    with open('/proc/cpuinfo') as file:
        model = re.search(r'model name\s*: (.*)', file.read()).group(1)
    any_figures = next(iter(figures.values()))
    yield (f"Measured on: {model}, {os.cpu_count()} processors, Linux {platform.release()}, "
           f"{any_figures['compiler']}.")
    yield ''
    for row in any_figures['rows']:
        others = [figures.get(name) and named(figures[name]['rows'], row['name'])
                  for name, _ in ARCHITECTURES]
        yield from row_lines(row, others)
    yield from library_lines()


def library_lines():
    """What the installed library brings along: relocations, and its bytes in memory after start."""
    yield '### the library'
    yield ''
    yield '| | ' + ' | '.join(title for _, title in ARCHITECTURES) + ' |'
    yield '|---|' + '---|' * len(ARCHITECTURES)
    relocations, resident = [], []
    for preset in ('bench', 'bench-native'):
        library = glob.glob(f'build/{preset}/installed/lib*/**/libKivVeltro.so.0', recursive=True)[0]
        listing = subprocess.check_output(['readelf', '-rW', library], text=True)
        relocations.append(f"{len(re.findall(' R_(?:386|X86_64)_', listing)):,}")
        shown = subprocess.check_output([f'build/{preset}/bench/load_ours', 'resident'], text=True)
        resident.append(f'{int(shown):,}')
    yield '| relocations | ' + ' | '.join(relocations) + ' |'
    yield '| resident bytes after start | ' + ' | '.join(resident) + ' |'
    yield ''


def panel(curve, title, left):
    """Logarithmic both ways, 360 x 260 at `left`."""
    sizes = curve['sizes']
    values = [v for line in curve['lines'] for v in line['values']]
    x0, x1 = math.log10(sizes[0]), math.log10(sizes[-1])
    y0, y1 = math.floor(math.log10(min(values))), math.ceil(math.log10(max(values)))

    def x(size):
        return left + 50 + 300 * (math.log10(size) - x0) / (x1 - x0)

    def y(value):
        return 240 - 200 * (math.log10(value) - y0) / (y1 - y0)

    yield f'<text x="{left + 50}" y="25" font-weight="bold">{escape(title)}</text>'
    for power in range(y0, y1 + 1):
        at = y(10 ** power)
        yield f'<line x1="{left + 50}" y1="{at:.1f}" x2="{left + 350}" y2="{at:.1f}" stroke="#ddd"/>'
        yield f'<text x="{left + 45}" y="{at + 4:.1f}" text-anchor="end">{10 ** power:,} ns</text>'
    for size in sizes:
        label = f'{size // 1000000}M' if size >= 10 ** 6 else f'{size // 1000}k' if size >= 1000 else size
        yield f'<text x="{x(size):.1f}" y="256" text-anchor="middle">{label}</text>'
    for line, colour in zip(curve['lines'], COLOURS):
        points = ' '.join(f'{x(s):.1f},{y(v):.1f}' for s, v in zip(sizes, line['values']))
        width = 2.5 if line['name'].startswith(('our', 'on our')) else 1.2
        yield f'<polyline points="{points}" fill="none" stroke="{colour}" stroke-width="{width}"/>'


def picture(curve, panels):
    yield ('<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 740 310" font-family="sans-serif" '
           'font-size="11">')
    yield '<rect width="740" height="310" fill="white"/>'
    for place, (title, one) in enumerate(panels):
        yield from panel(one, title, 370 * place)
    yield f'<text x="370" y="275" text-anchor="middle">{escape(curve["along"])}</text>'
    for place, (line, colour) in enumerate(zip(curve['lines'], COLOURS)):
        left = 50 + 110 * place
        yield f'<line x1="{left}" y1="293" x2="{left + 18}" y2="293" stroke="{colour}" stroke-width="2.5"/>'
        yield f'<text x="{left + 23}" y="297">{escape(line["name"])}</text>'
    yield '</svg>'


def pictures():
    figures = load('-growth')
    for curve in next(iter(figures.values()), {'curves': []})['curves']:
        panels = [(f"{curve['name']}, {title}", named(figures[name]['curves'], curve['name']))
                  for name, title in ARCHITECTURES if name in figures]
        file_name = 'docs/performance-' + curve['name'].replace(' ', '-') + '.svg'
        with open(file_name, 'w') as file:
            file.write('\n'.join(picture(curve, panels)) + '\n')


def main():
    with open(PAGE) as file:
        page = file.read()
    begin, end = '<!-- figures: begin -->\n', '<!-- figures: end -->\n'
    before, rest = page.split(begin)
    _, after = rest.split(end)
    with open(PAGE, 'w') as file:
        file.write(before + begin + '\n'.join(tables()) + end + after)
    pictures()


main()
