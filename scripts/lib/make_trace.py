#!/usr/bin/env python3
"""Writes a large trace in the Timeline's own layout, for measuring qor-trace.

    make_trace.py OUT MEBIBYTES

Four named threads open nested sections (up to four deep, some with args and
categories) in turn, one event per line with the comma in front, and the file
ends with a VSYNC grid and the trailer, as the Timeline writes them. Time
stamps rise by a few microseconds per event, several events share one.
"""
import random
import sys


def main():
    out, mebibytes = sys.argv[1], int(sys.argv[2])
    limit = mebibytes << 20
    rng = random.Random(7)
    threads = [(4101, "main"), (4102, "Renderer"), (4103, "Router"), (4104, "TileLoader")]
    names = ["frame", "layout", "draw", "drawLayer", "calculateRoute", "expandGraph", "loadTile", "decode"]
    depth = {tid: 0 for tid, _ in threads}
    ts = 8058174428
    written = 0
    with open(out, "w") as f:
        header = '{"displayTimeUnits":"ns","traceEvents":[\n'
        lines = ['{"pid":1,"tid":%d,"ph":"M","name":"thread_name","args":{"name":"%s"}}\n' % t for t in threads]
        f.write(header + lines[0] + "".join("," + line for line in lines[1:]))
        written = len(header) + sum(len(line) + 1 for line in lines)
        batch = []
        while written < limit:
            tid = threads[rng.randrange(4)][0]
            ts += rng.randrange(4)
            if depth[tid] < 4 and (depth[tid] == 0 or rng.random() < 0.5):
                depth[tid] += 1
                name = names[rng.randrange(len(names))]
                if rng.random() < 0.5:
                    line = ',{"name":"%s","ph":"B","ts":%d,"pid":1,"tid":%d,"args":{"frame":%d},"cat":"render"}\n' % (
                        name, ts, tid, rng.randrange(100000))
                else:
                    line = ',{"name":"%s","ph":"B","ts":%d,"pid":1,"tid":%d}\n' % (name, ts, tid)
            else:
                depth[tid] -= 1
                line = ',{"ph":"E","ts":%d,"pid":1,"tid":%d}\n' % (ts, tid)
            batch.append(line)
            written += len(line)
            if len(batch) == 100000:
                f.write("".join(batch))
                batch = []
        for tid, _ in threads:
            while depth[tid] > 0:
                depth[tid] -= 1
                batch.append(',{"ph":"E","ts":%d,"pid":1,"tid":%d}\n' % (ts, tid))
        start = 8058174428
        for mark in range(0, (ts - start) // 16666):
            batch.append(',{"name":"VSYNC","ph":"i","s":"t","ts":%d,"pid":1,"tid":4101}\n' % (start + mark * 16666))
        f.write("".join(batch) + "]}")


if __name__ == "__main__":
    main()
