#!/usr/bin/env python3
"""What a bad router may do to each call of libupnpc: the result, the time, and a good result as soon as it is well.
usage: router_test.py DRIVER"""
import sys
import unittest
from concurrent.futures import ThreadPoolExecutor
from http.server import ThreadingHTTPServer
from pathlib import Path
from threading import Thread

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "host"))
import gateway_test  # noqa: E402
from gateway_test import Bench, Gateway  # noqa: E402

ROW = {"NewInternalClient": "127.0.0.1", "NewInternalPort": "80", "NewExternalPort": "80", "NewProtocol": "TCP"}
WELL = {"eip 0": 0, "port 80": 1, "entry 0": 0, "add 81": 0, "delete 80": 0}  # calls and their results
LONG = dict.fromkeys(("NewExternalIPAddress", "NewInternalClient", "NewInternalPort"), "9" * 300000)


def told(**attributes):
    return lambda gateway: gateway.__dict__.update(attributes)


def go(gateway):
    gateway.http.shutdown()
    gateway.http.server_close()


def come_back(gateway):
    gateway.http = ThreadingHTTPServer(gateway.http.server_address, gateway.handler())
    Thread(target=gateway.http.serve_forever, daemon=True).start()


CODES = (400, 401, 402, 501, 606, 713, 718, 724, 725, 726, 727, 728, 729, 899)

# A fault, what ends it, and the results of the five calls under it.
KINDS = [
    *((told(control_mode=mode), told(control_mode=""), [-1] * 5) for mode in ("silent", "drip", "flood", "flooding head", "cut", "garbage")),
    *((told(control_mode=mode), told(control_mode=""), [100] * 5) for mode in ("no XML", "deep")),
    (go, come_back, [-1] * 5),
    (told(errors=lambda *_: LONG), told(errors=lambda *_: 0), [4, 2, 0, 101, 0]),
    (told(keeps=False, table={}), told(keeps=True), [0, 3, 713, 101, 4]),
    *((told(errors=lambda *_, code=code: code), told(errors=lambda *_: 0), [result] * 5)
      for code, result in (*zip(CODES, CODES), (399, 100), (900, 100), (99999, 100), (-7, 100))),
    (told(errors=lambda *_: 714), told(errors=lambda *_: 0), [714, 3, 714, 714, 4]),
]


class RouterTest(unittest.TestCase):
    def test_each_call_ends_in_its_result_and_the_next_is_well(self):
        def check(fault, cure, call, expected):
            with Bench() as bench:
                bench.gateway.table = {"80": ROW}
                bench.ask("discover")
                fault(bench.gateway)
                self.assertEqual(bench.ask(*call.split(), timeout=1)[0], expected)
                self.assertLess(bench.took, 9 if call[0] in "ad" else 2)  # an add and a delete take their own time-out
                if expected != -1:  # one try, or two of different leases
                    self.assertIn(bench.leases(), ([], ["0"], ["0", "604800"] if expected == 402 else []), expected)
                cure(bench.gateway)
                bench.gateway.table = {"80": ROW}
                self.assertEqual(bench.codes(call), [WELL[call]])

        with ThreadPoolExecutor(32) as pool:
            rows = [(index, call, pool.submit(check, *fault_and_cure, call, result))
                    for index, (*fault_and_cure, results) in enumerate(KINDS) for call, result in zip(WELL, results)]
            for *row, done in rows:
                with self.subTest(row=row):
                    done.result()

    def test_of_two_gateways_one_is_used_until_it_is_gone(self):
        other = Gateway()
        with Bench(before=[other.location]) as bench:
            self.assertEqual(bench.codes("discover", "add 80", "add 81", "delete 80"), [0] * 4)
            used, spare = (other, bench.gateway) if other.calls else (bench.gateway, other)
            self.assertEqual((list(used.table), spare.calls), (["81"], []))
            go(used)
            self.assertEqual(bench.codes("eip", "discover", "add 80"), [-1, 0, 0])
            self.assertEqual(list(spare.table), ["80"])


if __name__ == "__main__":
    gateway_test.DRIVER = sys.argv.pop(1)
    unittest.main()
