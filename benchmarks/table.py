#!/usr/bin/env python3
"""Prints the benchmark results of one run as a Markdown table with ratios and budgets.

Of the repetitions of a benchmark the best counts: on a machine that others use, everything else
measures the others. Times are processor time where one thread does all the work in an operation and
in what it is compared with, and wall time elsewhere.
"""

import json
import os
import platform
import statistics
import sys

# operation, (program, benchmark), (program, floor or peer), budget: ratio to the floor, or None
ROWS = [
    ("authorize over the bus, direct, 1 thread", ("bus", "AuthorizeDirect/real_time/threads:1"),
     ("bus", "FloorEmptyCallDirect/real_time/threads:1"), "an empty sd-bus call", 1.3),
    ("authorize over the bus, direct, 4 threads", ("bus", "AuthorizeDirect/real_time/threads:4"),
     ("bus", "FloorEmptyCallDirect/real_time/threads:4"), "an empty sd-bus call", 1.3),
    ("authorize over the bus, broker, 1 thread", ("bus", "AuthorizeBroker/real_time/threads:1"),
     ("bus", "FloorEmptyCallBroker/real_time/threads:1"), "an empty sd-bus call", None),
    ("authorize over the bus, broker, 4 threads", ("bus", "AuthorizeBroker/real_time/threads:4"),
     ("bus", "FloorEmptyCallBroker/real_time/threads:4"), "an empty sd-bus call", None),
    ("authorize over the bus, direct, 1 thread", ("bus", "AuthorizeDirect/real_time/threads:1"),
     ("bus", "PeerPlainCallDirect/real_time/threads:1"), "the same texts, plain sd-bus", None),
    ("authorize over the bus, direct, 4 threads", ("bus", "AuthorizeDirect/real_time/threads:4"),
     ("bus", "PeerPlainCallDirect/real_time/threads:4"), "the same texts, plain sd-bus", None),
    ("authorize over the bus, broker, 1 thread", ("bus", "AuthorizeBroker/real_time/threads:1"),
     ("bus", "PeerPlainCallBroker/real_time/threads:1"), "the same texts, plain sd-bus", None),
    ("authorize over the bus, broker, 4 threads", ("bus", "AuthorizeBroker/real_time/threads:4"),
     ("bus", "PeerPlainCallBroker/real_time/threads:4"), "the same texts, plain sd-bus", None),
    ("authorize through a broker, 1 thread", ("bus", "AuthorizeBroker/real_time/threads:1"),
     ("polkit", "CheckAuthorization/real_time"), "polkit CheckAuthorization", None),
    ("client cache hit (authorize)", ("client", "AuthorizeCached"),
     ("client", "FloorMapLookup"), "map look-up, mutex, one clock read", 3.0),
    ("authorize in process, 10 sessions", ("session", "Authorize/10"),
     ("session", "FloorMapLookup/10"), "map look-up, mutex, one clock read", None),
    ("authorize in process, 1,000 sessions", ("session", "Authorize/1000"),
     ("session", "FloorMapLookup/1000"), "map look-up, mutex, one clock read", None),
    ("authorize in process, 100,000 sessions", ("session", "Authorize/100000"),
     ("session", "FloorMapLookup/100000"), "map look-up, mutex, one clock read", None),
    ("refresh, 10 sessions", ("session", "Refresh/10"),
     ("session", "FloorMapLookup/10"), "map look-up, mutex, one clock read", None),
    ("refresh, 1,000 sessions", ("session", "Refresh/1000"),
     ("session", "FloorMapLookup/1000"), "map look-up, mutex, one clock read", None),
    ("refresh, 100,000 sessions", ("session", "Refresh/100000"),
     ("session", "FloorMapLookup/100000"), "map look-up, mutex, one clock read", None),
    ("enroll, 10 sessions", ("session", "Enroll/10/manual_time"),
     ("session", "FloorRandomDevice"), "4 bytes from /dev/urandom", None),
    ("enroll, 1,000 sessions", ("session", "Enroll/1000/manual_time"),
     ("session", "FloorRandomDevice"), "4 bytes from /dev/urandom", None),
    ("enroll, 100,000 sessions", ("session", "Enroll/100000/manual_time"),
     ("session", "FloorRandomDevice"), "4 bytes from /dev/urandom", None),
    ("cancel, 10 sessions", ("session", "Cancel/10/manual_time"),
     ("session", "FloorMapLookup/10"), "map look-up, mutex, one clock read", None),
    ("cancel, 1,000 sessions", ("session", "Cancel/1000/manual_time"),
     ("session", "FloorMapLookup/1000"), "map look-up, mutex, one clock read", None),
    ("cancel, 100,000 sessions", ("session", "Cancel/100000/manual_time"),
     ("session", "FloorMapLookup/100000"), "map look-up, mutex, one clock read", None),
    ("nonce check, 1 nonce", ("nonce", "Check/1"),
     ("nonce", "FloorMapLookup/1"), "map look-up, mutex, one clock read", None),
    ("nonce check, 1,024 nonces", ("nonce", "Check/1024"),
     ("nonce", "FloorMapLookup/1024"), "map look-up, mutex, one clock read", None),
    ("new nonce in a full cache", ("nonce", "AddToAFullCache"),
     ("nonce", "FloorMapLookup/1024"), "map look-up, mutex, one clock read", None),
    ("HTTP digest logon, HA1 cached, session reused",
     ("logon", "HttpDigestLogonReusing/manual_time"),
     ("logon", "FloorMd5"), "its MD5", 3.0),
    ("HTTP digest logon, HA1 cached, new session",
     ("logon", "HttpDigestLogonNewSession/manual_time"),
     ("logon", "FloorMd5"), "its MD5", None),
    ("password logon", ("logon", "PasswordLogon"),
     ("logon", "FloorRsaPrivateOperation"), "one RSA private operation", 1.1),
    ("wrong password", ("logon", "WrongPassword"),
     ("logon", "FloorRsaPrivateOperation"), "one RSA private operation", None),
    ("unknown user", ("logon", "UnknownUser"),
     ("logon", "FloorRsaPrivateOperation"), "one RSA private operation", None),
    ("UsernameToken logon", ("logon", "WsseLogon"),
     ("logon", "FloorSha1AndRsaPrivateOperation"), "SHA-1 and one RSA private operation", None),
    ("header reader, 2 KB envelope, whole", ("header-reader", "Read/1048576"),
     ("header-reader", "PeerExpat/1048576"), "expat stopped at the same tag", 1.0),
    ("header reader, 64-byte pieces", ("header-reader", "Read/64"),
     ("header-reader", "PeerExpat/64"), "expat stopped at the same tag", 1.0),
    ("header reader, whole", ("header-reader", "Read/1048576"),
     ("header-reader", "PeerLibxml2/1048576"), "libxml2 stopped at the same tag", None),
    ("one account change, durable", ("account", "ChangeGroup/real_time"),
     ("account", "FloorFdatasync/real_time"), "one fdatasync of a page", None),
    ("one password change, durable", ("account", "ChangePassword/real_time"),
     ("account", "FloorFdatasync/real_time"), "one fdatasync of a page", None),
    ("start to READY=1, 1,024 accounts", ("start", "Start/iterations:5/manual_time"),
     ("start", "FloorStartOfTheProgram/iterations:5/manual_time"), "the program's own start", None),
]
# Every cached question of a client that holds so many answers, asked by so many threads.
ROWS += [
    (f"cache hit, {question}, {entries:,} entries, {threads} thread{'s' if threads > 1 else ''}",
     ("client", f"CacheHit{question}/{entries}{clock}/threads:{threads}"),
     ("client", f"FloorSharedMap/{entries}{clock}/threads:{threads}"),
     "map look-up, mutex, one clock read", None)
    for question in ("Authenticate", "Authorize", "IsAuthenticated", "IsProtected")
    for entries in (10, 10000)
    for threads, clock in ((1, ""), (4, "/real_time"))
]

# what ends a grant, benchmark
CHANGES = [
    ("logout", "Logout/iterations:50/manual_time"),
    ("invalidate", "Invalidate/iterations:50/manual_time"),
    ("rule changed", "RuleChange/iterations:50/manual_time"),
    ("account deleted", "AccountDeleted/iterations:50/manual_time"),
    ("daemon killed", "DaemonKilled/iterations:10/manual_time"),
]


# The same file of servers that check digests themselves.
HTTP_PEERS = [("PeerMicrohttpd", "libmicrohttpd's own digest check"),
              ("PeerLighttpd", "lighttpd, mod_auth"),
              ("PeerApache", "Apache, mod_auth_digest")]
for connections in (1, 16):
    ROWS += [(f"HTTP request with a digest, {connections} connection{'s'[:connections - 1]}",
              ("http", f"GatewayDigest/{connections}/real_time"),
              ("http", f"{peer}/{connections}/real_time"), name, None)
             for peer, name in HTTP_PEERS]
    ROWS.append((f"HTTP request with a cookie, {connections} connection{'s'[:connections - 1]}",
                 ("http", f"GatewayCookie/{connections}/real_time"),
                 ("http", f"GatewayDigest/{connections}/real_time"), "the same with a digest", None))


def load(folder):
    """All repetitions of every benchmark: {(program, name): [entry, ...]}."""
    runs = {}
    for file in sorted(os.listdir(folder)):
        if not file.endswith(".json"):
            continue
        with open(os.path.join(folder, file), encoding="utf-8") as stream:
            for entry in json.load(stream)["benchmarks"]:
                if entry.get("error_occurred"):
                    sys.exit(f"{file}: {entry['name']}: {entry['error_message']}")
                if entry.get("run_type") == "iteration":
                    key = (file[: -len(".json")], entry["name"])
                    runs.setdefault(key, []).append(entry)
    return runs


# in nanoseconds
UNITS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}


def is_wall(key):
    return "real_time" in key[1] or "manual_time" in key[1]


class Results:
    def __init__(self, runs):
        self.runs = runs

    def nanoseconds(self, key, wall):
        """The best repetition, or None when this benchmark was not built."""
        if key not in self.runs:
            return None
        field = "real_time" if wall else "cpu_time"
        return min(entry[field] * UNITS[entry["time_unit"]] for entry in self.runs[key])

    def pair(self, key, floor):
        wall = is_wall(key) or is_wall(floor)
        return self.nanoseconds(key, wall), self.nanoseconds(floor, wall)

    def ratio(self, key, floor):
        measured, base = self.pair(key, floor)
        return None if measured is None or base is None else measured / base

    def counter(self, key, name, choose=min):
        return choose(entry[name] for entry in self.runs[key]) if key in self.runs else None


def text(nanoseconds):
    for limit, unit in ((1e3, "ns"), (1e6, "µs"), (1e9, "ms")):
        if nanoseconds < limit:
            return f"{nanoseconds / (limit / 1e3):.3g} {unit}"
    return f"{nanoseconds / 1e9:.3g} s"


def table(results):
    verdicts = []
    print("| operation | best | floor or peer | its best | ratio | budget | verdict |")
    print("|---|---|---|---|---|---|---|")
    for operation, key, floor, floor_text, budget in ROWS:
        measured, base = results.pair(key, floor)
        if measured is not None and base is None and floor[0] in ("polkit", "http"):
            print(f"| {operation} | {text(measured)} | {floor_text} | not installed | | | |")
        if measured is None or base is None:
            continue
        ratio = measured / base
        verdict = "" if budget is None else "within" if ratio <= budget else "**over**"
        verdicts.append(verdict)
        print(f"| {operation} | {text(measured)} | {floor_text} | {text(base)} | {ratio:.2f} "
              f"| {'' if budget is None else f'≤ {budget:g}'} | {verdict} |")
    return verdicts


def stale_grants(results):
    """How long a grant is given after it has ended."""
    print("\n| what ends a grant | last grant after its request | after its answer | worst of all |")
    print("|---|---|---|---|")
    for change, name in CHANGES:
        runs = results.runs.get(("stale", name))
        if not runs:
            continue
        request = statistics.median(run["real_time"] for run in runs) * UNITS[runs[0]["time_unit"]]
        answer = statistics.median(run["answered_us"] for run in runs) * 1e3
        worst = max(run["worst_us"] for run in runs) * 1e3
        print(f"| {change} | {text(request)} | {text(answer)} | {text(worst)} |")


def memory(results):
    print("\n| cached answer | memory |\n|---|---|")
    for question in ("Authenticate", "Authorize", "IsAuthenticated", "IsProtected"):
        key = ("client", f"CacheHit{question}/10000/threads:1")
        size = results.counter(key, "bytes_per_entry")
        if size is not None:
            print(f"| {question} | {size:.0f} bytes |")


def limits(results):
    """Budgets that are no ratio to a floor."""
    start = ("start", "Start/iterations:5/manual_time")
    ready = results.nanoseconds(start, True)
    most = results.nanoseconds(("session", "Authorize/100000"), False)
    rows = [
        ("authorize in process, at most", most and most / 1e3, 2.0, "µs"),
        ("authorize in process, 100,000 sessions to 10",
         results.ratio(("session", "Authorize/100000"), ("session", "Authorize/10")), 1.5, ""),
        ("nonce check, 1,024 nonces to 1",
         results.ratio(("nonce", "Check/1024"), ("nonce", "Check/1")), 1.5, ""),
        ("flushed transactions in one account change",
         results.counter(("account", "ChangeGroup/real_time"), "transactions", max), 1.0, ""),
        ("start to READY=1 with 1,024 accounts", ready and ready / 1e6, 50.0, "ms"),
        ("resident then", results.counter(start, "resident_at_ready_mib"), 10.0, "MiB"),
        ("of it, memory of its own", results.counter(start, "own_at_ready_mib"), None, "MiB"),
        ("resident with the accounts loaded", results.counter(start, "resident_mib"), None, "MiB"),
        ("first answer, which loads the accounts",
         results.counter(start, "first_call_ms"), None, "ms"),
    ]
    verdicts = []
    print("\n| limit | measured | budget | verdict |\n|---|---|---|---|")
    for name, value, budget, unit in rows:
        if value is None:
            continue
        verdict = "" if budget is None else "within" if value <= budget * 1.0001 else "**over**"
        verdicts.append(verdict)
        bound = "" if budget is None else f"≤ {budget:g} {unit}".strip()
        print(f"| {name} | {value:.3g} {unit} | {bound} | {verdict} |")
    return verdicts


def main():
    results = Results(load(sys.argv[1]))
    print(f"{platform.system()} {platform.machine()}, {os.cpu_count()} cores, load average "
          f"{os.getloadavg()[0]:.1f} at the end of the run.\n")
    verdicts = table(results) + limits(results)
    stale_grants(results)
    memory(results)
    sys.exit(1 if "**over**" in verdicts else 0)


main()
