"""A TCP proxy between a client and the bridge server that can cut the
connection after a given number of bytes: the bytes of both directions count
in the order the proxy forwards them (the bridge's calls alternate, so the
order is the same every run). One connection at a time."""
import select
import socket
import threading


class FaultProxy:
    def __init__(self, target_port):
        self.target_port = target_port
        self.listener = socket.socket()
        self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.listener.bind(("127.0.0.1", 0))
        self.listener.listen(8)
        self.port = self.listener.getsockname()[1]
        self.cut_after = None   # None: never cut
        self.forwarded = 0      # bytes forwarded on the current connection
        self._stop = False
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def arm(self, cut_after):
        """The next connection is cut once cut_after bytes went through."""
        self.cut_after = cut_after
        self.forwarded = 0

    def _serve(self):
        while not self._stop:
            ready, _, _ = select.select([self.listener], [], [], 0.2)
            if not ready:
                continue
            try:
                client, _ = self.listener.accept()
            except OSError:
                return
            self.forwarded = 0
            try:
                server = socket.create_connection(("127.0.0.1", self.target_port), timeout=5)
            except OSError:
                client.close()
                continue
            self._pump(client, server)

    def _pump(self, client, server):
        peers = {client: server, server: client}
        try:
            while not self._stop:
                ready, _, _ = select.select(list(peers), [], [], 0.2)
                for sock in ready:
                    data = sock.recv(65536)
                    if not data:
                        return
                    if self.cut_after is not None:
                        data = data[:max(0, self.cut_after - self.forwarded)]
                    peers[sock].sendall(data)
                    self.forwarded += len(data)
                    if self.cut_after is not None and self.forwarded >= self.cut_after:
                        return
        except OSError:
            return
        finally:
            client.close()
            server.close()

    def close(self):
        self._stop = True
        self.listener.close()
        self._thread.join(timeout=5)
