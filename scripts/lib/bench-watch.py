#!/usr/bin/env python3
"""Timing parts of the watching benchmark, run inside its sandbox.

usage: bench-watch.py latency PORT SID TOKEN COUNT
       bench-watch.py versions PORT SID TOKEN PATH
The latency run writes COUNT files, each in a folder of its own, one every
quarter second, and polls list_version for each until its version shows; it
prints one latency in seconds a line.
"""
import json
import os
import sys
import threading
import time
import urllib.parse
import urllib.request

HOME = "/volume1/homes/alice/Tidepool"


def list_version(port, sid, token, path):
    query = urllib.parse.urlencode({
        "api": "KSTX.Tidepool.Node", "method": "list_version", "version": "1",
        "target": '"mine"', "path": json.dumps(path)})
    request = urllib.request.Request(
        f"http://127.0.0.1:{port}/webapi/entry.cgi?{query}",
        headers={"Cookie": f"id={sid}", "X-Tidepool-Token": token})
    with urllib.request.urlopen(request, timeout=30) as answer:
        data = json.load(answer)
    return len(data.get("data", {}).get("items", [])) if data.get("success") else 0


def latency(port, sid, token, count):
    uid = os.stat(HOME).st_uid
    for i in range(count):
        os.makedirs(f"{HOME}/lat/f{i}", exist_ok=True)
        os.chown(f"{HOME}/lat/f{i}", uid, 100)
    time.sleep(5)  # the folders' own versions first
    closed = {}
    done = {}
    lock = threading.Lock()

    def poll():
        while True:
            with lock:
                waiting = [i for i in closed if i not in done]
                finished = len(done) == count
            if finished:
                return
            for i in waiting:
                if list_version(port, sid, token, f"/lat/f{i}/x.txt") >= 1:
                    with lock:
                        done[i] = time.monotonic()
            time.sleep(0.02)

    poller = threading.Thread(target=poll)
    poller.start()
    for i in range(count):
        path = f"{HOME}/lat/f{i}/x.txt"
        with open(path, "w") as f:
            f.write(f"change {i}\n")
        with lock:
            closed[i] = time.monotonic()
        time.sleep(0.25)
    poller.join(timeout=600)
    for i in range(count):
        if i in done:
            print(f"{done[i] - closed[i]:.3f}")


def main():
    what = sys.argv[1]
    if what == "latency":
        latency(sys.argv[2], sys.argv[3], sys.argv[4], int(sys.argv[5]))
    elif what == "versions":
        print(list_version(sys.argv[2], sys.argv[3], sys.argv[4], sys.argv[5]))


if __name__ == "__main__":
    main()
