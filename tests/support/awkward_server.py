"""A server of files on a free port of the loopback, which it prints, with the faults that servers have.

    awkward_server.py DIRECTORY

http://HOST/FAULT/NAME is the file NAME served with that fault; http://HOST/served says how many bytes of parts went
out since it was asked last. It ends with its standard input.
"""

import collections
import http.server
import pathlib
import re
import sys
import threading
import time

DIRECTORY = pathlib.Path(sys.argv[1])
FAULTS = ("plain", "untagged", "whole", "trips", "breaks", "stalls", "dead", "busy", "gone", "changes", "shrinks", "swaps",
          "elsewhere", "astray", "silent", "huge", "nonsense", "long", "hops", "circles")

asked = collections.Counter()
lock = threading.Lock()  # every connection has a thread
served = 0


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *_):
        pass

    def answer(self, status, headers, body=b"", claimed=None):
        global served
        if status == 206:
            with lock:  # before it goes out: who has it may ask at once
                served += len(body)
        self.send_response(status)
        for name, value in headers.items():
            self.send_header(name, value)
        self.send_header("Content-Length", str(len(body) if claimed is None else claimed))
        self.end_headers()
        self.wfile.write(body)
        self.wfile.flush()
        self.close_connection = claimed is not None

    def do_GET(self):
        global served
        if self.path == "/served":
            with lock:
                text, served = str(served).encode(), 0
            return self.answer(200, {}, text)
        _, fault, name = self.path.split("/", 2)
        assert fault in FAULTS, fault
        content = (DIRECTORY / name).read_bytes() if (DIRECTORY / name).is_file() else None
        if content is None or fault == "gone":
            return self.answer(404, {}, b"no such file")
        if fault in ("hops", "circles", "elsewhere"):
            to = {"hops": f"/plain/{name}", "circles": self.path, "elsewhere": f"file://{DIRECTORY / name}"}[fault]
            return self.answer(302, {"Location": to})
        wanted = re.fullmatch(r"bytes=(\d+)-(\d+)", self.headers.get("Range", ""))
        asked[self.path] += 1
        count = asked[self.path]  # of this file, this one included
        tag = {} if fault == "untagged" else {"ETag": '"1"'}
        if fault in ("changes", "swaps") and count > 1:
            tag = {"ETag": '"2"'}
            if fault == "changes" and self.headers.get("If-Range") == '"1"':
                return self.answer(200, tag, content)
        if fault == "whole" or not wanted:
            return self.answer(200, tag, content)
        if fault == "shrinks" and count > 1:
            content = content[:100]
        begin, end = int(wanted[1]), min(int(wanted[2]) + 1, len(content))
        if begin >= len(content):
            return self.answer(416, {"Content-Range": f"bytes */{len(content)}"})
        if fault == "busy" and count % 3 != 0:
            return self.answer(503, {}, b"later")
        place = f"bytes {begin}-{end - 1}/{len(content)}"
        if fault == "astray":
            place = f"bytes {begin + 1}-{end}/{len(content) + 1}"
        if fault == "huge":
            place = f"bytes {begin}-{end - 1}/{2 ** 70}"
        if fault == "nonsense":
            place = "bytes of some kind"
        headers = tag if fault == "silent" else {**tag, "Content-Range": place}
        body = content[begin:end]
        if fault == "long":
            return self.answer(206, headers, body + b"more")
        if fault == "dead" and count > 1:
            self.close_connection = True
            return None
        if (fault in ("breaks", "stalls") and count % 2 == 1) or (fault == "trips" and count == 1):
            self.answer(206, headers, body[: len(body) // 2], len(body))
            if fault == "stalls":
                time.sleep(3)
            return None
        return self.answer(206, headers, body)


class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True

    def handle_error(self, *_):
        pass  # clients go when they have enough


server = Server(("127.0.0.1", 0), Handler)
threading.Thread(target=server.serve_forever, daemon=True).start()
print(server.server_address[1], flush=True)
sys.stdin.read()
