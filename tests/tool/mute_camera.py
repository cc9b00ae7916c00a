"""A camera that takes every request of an RTSP client and never sends a packet. Says its port on standard output."""

import socketserver

DESCRIPTION = "\r\n".join([
    "v=0", "o=- 0 0 IN IP4 127.0.0.1", "s=mute", "c=IN IP4 0.0.0.0", "t=0 0", "a=control:*",
    "m=video 0 RTP/AVP 96", "a=rtpmap:96 H264/90000", "a=fmtp:96 packetization-mode=1", "a=control:track", ""])


class Camera(socketserver.StreamRequestHandler):
    def handle(self):
        while request := self.read_request():
            method, url = request[0].split()[:2]
            number = next(line for line in request if line.lower().startswith("cseq:"))
            answer = ["RTSP/1.0 200 OK", number, "Session: 1;timeout=60"]
            body = ""
            if method == "OPTIONS":
                answer.append("Public: OPTIONS, DESCRIBE, SETUP, PLAY, PAUSE, TEARDOWN, GET_PARAMETER")
            if method == "DESCRIBE":
                body = DESCRIPTION
                answer += [f"Content-Base: {url}/", "Content-Type: application/sdp", f"Content-Length: {len(body)}"]
            if method == "SETUP":
                transport = next(line for line in request if line.lower().startswith("transport:"))
                if "TCP" not in transport:
                    answer[0] = "RTSP/1.0 461 Unsupported Transport"
                answer.append(transport)
            print(method, flush=True)
            self.wfile.write("\r\n".join(answer + ["", body]).encode())

    def read_request(self):
        lines = []
        while line := self.rfile.readline().decode().strip():
            lines.append(line)
        return lines


class Server(socketserver.ThreadingTCPServer):
    daemon_threads = True


with Server(("127.0.0.1", 0), Camera) as server:
    print(f"port={server.server_address[1]}", flush=True)
    server.serve_forever()
