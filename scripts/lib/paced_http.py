#!/usr/bin/env python3
"""python3 -m http.server with file bodies sent at a steady rate, as a
network link of that speed would deliver them, or with rate 0 by sendfile(2)
as production static servers do, so that the server takes little of the CPU
the client is measured on. Prints the same first line.

    paced_http.py <directory> <bytes per second | 0>
"""
import functools
import sys
import time
from http.server import SimpleHTTPRequestHandler, ThreadingHTTPServer


class Paced(SimpleHTTPRequestHandler):
    rate = float(sys.argv[2])

    def copyfile(self, source, outputfile):
        if not self.rate:
            outputfile.flush()
            return self.connection.sendfile(source)
        start, sent = time.monotonic(), 0
        while chunk := source.read(1 << 20):
            outputfile.write(chunk)
            sent += len(chunk)
            time.sleep(max(0.0, start + sent / self.rate - time.monotonic()))


server = ThreadingHTTPServer(("127.0.0.1", 0), functools.partial(Paced, directory=sys.argv[1]))
print(f"Serving HTTP on 127.0.0.1 port {server.server_address[1]}", flush=True)
server.serve_forever()
