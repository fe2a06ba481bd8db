#!/usr/bin/python3
"""A Wayland wire proxy that lets xdg-desktop-portal-wlr 0.7 capture a GPU-less sway.

xdg-desktop-portal-wlr 0.7 refuses to start a screencast unless every
screencopy frame announces a linux_dmabuf format as well as its wl_shm buffer,
and sway on the pixman renderer announces only the wl_shm one. This proxy sits
between the portal backend and sway, passes everything through unchanged
(bytes and file descriptors), and adds a linux_dmabuf event with the fourcc of
the frame's wl_shm format just before buffer_done when sway sent none. The
backend then still captures through wl_shm, since sway offers no dmabuf
protocol.

Usage: wayland_dmabuf_shim.py LISTEN_SOCKET COMPOSITOR_SOCKET
"""
import array
import os
import socket
import struct
import sys
import threading

DISPLAY_ID = 1
GET_REGISTRY = 1      # wl_display request
DELETE_ID = 1         # wl_display event
BIND = 0              # wl_registry request
CAPTURE_OUTPUT, CAPTURE_OUTPUT_REGION = 0, 1                    # zwlr_screencopy_manager_v1 requests
FRAME_BUFFER, FRAME_LINUX_DMABUF, FRAME_BUFFER_DONE = 0, 5, 6   # zwlr_screencopy_frame_v1 events
MAX_FDS = 28


def drm_fourcc(shm_format):
    # wl_shm names its first two formats 0 and 1; every other one is its DRM fourcc.
    return {0: 0x34325241, 1: 0x34325258}.get(shm_format, shm_format)


class Connection:
    """One client of the proxy and its own connection to the compositor."""

    def __init__(self, client, compositor):
        self.client, self.compositor = client, compositor
        self.lock = threading.Lock()
        self.registries, self.managers = set(), set()
        self.frames = {}  # frame id -> [shm format or None, saw linux_dmabuf]

    def requests(self, body_of):
        for object_id, opcode, body in body_of:
            with self.lock:
                if object_id == DISPLAY_ID and opcode == GET_REGISTRY:
                    self.registries.add(struct.unpack_from("<I", body)[0])
                elif object_id in self.registries and opcode == BIND:
                    length = struct.unpack_from("<I", body, 4)[0]
                    interface = body[8:8 + length - 1].decode(errors="replace")
                    new_id = struct.unpack_from("<I", body, 8 + (length + 3) // 4 * 4 + 4)[0]
                    if interface == "zwlr_screencopy_manager_v1":
                        self.managers.add(new_id)
                elif object_id in self.managers and opcode in (CAPTURE_OUTPUT, CAPTURE_OUTPUT_REGION):
                    self.frames[struct.unpack_from("<I", body)[0]] = [None, False]

    def events(self, messages):
        out = []
        for object_id, opcode, body in messages:
            with self.lock:
                frame = self.frames.get(object_id)
                if object_id == DISPLAY_ID and opcode == DELETE_ID:
                    gone = struct.unpack_from("<I", body)[0]
                    self.frames.pop(gone, None)
                    self.managers.discard(gone)
                    self.registries.discard(gone)
                elif frame is not None and opcode == FRAME_BUFFER:
                    frame[0] = struct.unpack_from("<I", body)[0]
                    frame[2:] = [struct.unpack_from("<II", body, 4)]
                elif frame is not None and opcode == FRAME_LINUX_DMABUF:
                    frame[1] = True
                elif frame is not None and opcode == FRAME_BUFFER_DONE and frame[0] is not None and not frame[1]:
                    width, height = frame[2]
                    out.append(struct.pack("<IIIII", object_id, 20 << 16 | FRAME_LINUX_DMABUF,
                                           drm_fourcc(frame[0]), width, height))
            out.append(struct.pack("<II", object_id, (8 + len(body)) << 16 | opcode) + body)
        return b"".join(out)


def split(buffer):
    """Complete messages at the front of `buffer`, and the bytes after them."""
    messages, at = [], 0
    while len(buffer) - at >= 8:
        object_id, word = struct.unpack_from("<II", buffer, at)
        size = word >> 16
        if size < 8 or len(buffer) - at < size:
            break
        messages.append((object_id, word & 0xffff, bytes(buffer[at + 8:at + size])))
        at += size
    return messages, buffer[at:]


def pump(source, sink, handle):
    """Moves messages from `source` to `sink`, with the descriptors that came with them."""
    pending, fds = b"", []
    try:
        while True:
            data, ancillary, _, _ = source.recvmsg(65536, socket.CMSG_SPACE(MAX_FDS * 4))
            if not data:
                break
            for level, kind, payload in ancillary:
                if level == socket.SOL_SOCKET and kind == socket.SCM_RIGHTS:
                    received = array.array("i")
                    received.frombytes(payload[:len(payload) - len(payload) % 4])
                    fds.extend(received)
            messages, pending = split(pending + data)
            if not messages:
                continue
            out = handle(messages)
            sink.sendmsg([out], [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", fds))] if fds else [])
            for fd in fds:
                os.close(fd)
            fds = []
    except OSError:
        pass
    for end in (source, sink):
        try:
            end.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass


def serve(listen_path, compositor_path):
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    if os.path.exists(listen_path):
        os.unlink(listen_path)
    listener.bind(listen_path)
    listener.listen(8)
    while True:
        client, _ = listener.accept()
        compositor = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        try:
            compositor.connect(compositor_path)
        except OSError:
            client.close()
            continue
        connection = Connection(client, compositor)

        def forward_requests(messages, connection=connection):
            connection.requests(messages)
            return b"".join(struct.pack("<II", o, (8 + len(b)) << 16 | op) + b for o, op, b in messages)

        threading.Thread(target=pump, args=(client, compositor, forward_requests), daemon=True).start()
        threading.Thread(target=pump, args=(compositor, client, connection.events), daemon=True).start()


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__.strip().splitlines()[-1])
    serve(sys.argv[1], sys.argv[2])
