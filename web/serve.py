"""Serves a folder to this machine alone, with the headers that let a page have threads:  serve.py FOLDER [PORT]"""
import functools
import http.server
import sys


class Handler(http.server.SimpleHTTPRequestHandler):
    def end_headers(self):
        self.send_header("Cross-Origin-Opener-Policy", "same-origin")
        self.send_header("Cross-Origin-Embedder-Policy", "require-corp")
        super().end_headers()

    def log_message(self, *_):
        pass


def make_server(folder, port=0):
    return http.server.ThreadingHTTPServer(("127.0.0.1", port), functools.partial(Handler, directory=folder))


if __name__ == "__main__":
    with make_server(sys.argv[1], int((sys.argv[2:] or ["8000"])[0])) as server:
        print(f"http://localhost:{server.server_port}/live.html   (Ctrl+C ends it)", flush=True)
        try:
            server.serve_forever()
        except KeyboardInterrupt:
            pass
