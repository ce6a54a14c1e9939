#!/usr/bin/env python3
"""What a service must carry: requests a second of a whole fleet, by the daemon's own waits, after a power cut and after
an outage. usage: bench/fleet.py [SVG]; prints the figures, and draws them where a file is named."""

import random
import sys

CAMERAS, LONG_S, BIN_S = 20_000, 7200, 10  # so many are played, for so long; figures are for a million
KEEP_ALIVE_S, REFUSED_S, CONNECT_S = 230, 60, 20
REGISTER, KEEP_ALIVE = 6, 2  # exchanges: of a registration (the first is challenged), of a test from outside
BOOT_S = (20, 5)  # a camera's time from power to its first request: mean and deviation
SCALE = 1_000_000 / CAMERAS


class Service:
    """When it is there, and how long its answer to a test from outside takes."""

    def __init__(self, gone=(0, 0), holds_s=0):
        self.gone, self.holds_s = gone, holds_s

    def answers(self, at):
        return not self.gone[0] <= at < self.gone[1]

    def test_takes(self):
        return random.uniform(0.1, 0.3) + random.uniform(0, self.holds_s)


def live(service, start, bins, registered=False):
    """One camera's requests, counted."""
    at = start

    def ask(count):
        if 0 <= at < LONG_S:
            bins[int(at / BIN_S)] += count
        return service.answers(at)

    while at < LONG_S:
        if not registered:
            if not ask(1):
                at += 3 * CONNECT_S + REFUSED_S  # three attempts that nobody answers
                continue
            ask(REGISTER - 1)
            at += 5 + service.test_takes()
            registered = True
        at += KEEP_ALIVE_S
        registered = ask(KEEP_ALIVE)
        at += service.test_takes() if registered else 3 * CONNECT_S


SCENES = [
    ("calm", "#4c8f5e", Service(), lambda: (random.uniform(-KEEP_ALIVE_S, 0), True)),
    ("a power cut", "#b3261e", Service(), lambda: (max(0, random.gauss(*BOOT_S)), False)),
    ("a power cut; the service holds its answers for up to 25 s", "#0b5cad", Service(holds_s=25),
     lambda: (max(0, random.gauss(*BOOT_S)), False)),
    ("the service is gone for an hour", "#8a5a00", Service(gone=(600, 4200)), lambda: (random.uniform(-KEEP_ALIVE_S, 0), True)),
]


def rates(service, begin):
    bins = [0] * (LONG_S // BIN_S)
    for _ in range(CAMERAS):
        start, registered = begin()
        live(service, start, bins, registered)
    return [count * SCALE / BIN_S for count in bins]


def drawn(curves):
    width, height, left, gap, low = 900, 150, 70, 40, 30
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {(height + gap) * len(curves) + 10}" '
             'font-family="sans-serif" font-size="12" fill="#444"><rect width="100%" height="100%" fill="#fff"/>']
    for index, (name, colour, rate) in enumerate(curves):
        top, most = index * (height + gap) + low, max(rate)
        x, y = (lambda t: left + t / LONG_S * (width - left - 15)), (lambda r: top + height - 20 - r / most * (height - 30))
        points = " ".join(f"{x(i * BIN_S):.1f},{y(r):.1f}" for i, r in enumerate(rate))
        parts.append(f'<text x="{left}" y="{top - 6}" font-weight="bold">{name}: at most {most:,.0f} requests a second</text>'
                     f'<text x="{left - 6}" y="{y(most) + 4:.0f}" text-anchor="end">{most:,.0f}</text>'
                     f'<text x="{left - 6}" y="{y(0) + 4:.0f}" text-anchor="end">0</text>'
                     f'<line x1="{left}" x2="{width - 15}" y1="{y(0)}" y2="{y(0)}" stroke="#bbb"/>'
                     f'<polyline points="{points}" fill="none" stroke="{colour}" stroke-width="1.5"/>')
        parts += [f'<text x="{x(t):.0f}" y="{top + height - 4}" text-anchor="middle">{t // 60} min</text>' for t in range(0, LONG_S + 1, 1200)]
    return "\n".join(parts) + "</svg>\n"


if __name__ == "__main__":
    random.seed(7)
    curves = []
    for name, colour, service, begin in SCENES:
        rate = rates(service, begin)
        late = rate[-KEEP_ALIVE_S * 3 // BIN_S:]
        curves.append((name, colour, rate))
        print(f"{name:<60} at most {max(rate):>9,.0f} a second; in the last quarter of an hour {sum(late) / len(late):>7,.0f} on average, {max(late):>9,.0f} at most")
    if len(sys.argv) > 1:
        with open(sys.argv[1], "w", encoding="utf-8") as file:
            file.write(drawn(curves))
