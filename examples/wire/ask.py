# SPDX-License-Identifier: Apache-2.0
"""A client without any library: asks an application for an action, and prints the bytes.

    ask.py APP_ID ACTION_ID PARAMS

What it says is what the host platform's transport carries; see docs/client-guide.md.
"""
import os
import socket
import struct
import sys

CLIENT_ID = b"demo.client"
REQUEST_ID = 7
TEXT, BYTES = 1, 3  # types of the entries of a bundle
RESULT, CALLBACK, SET_CB, SEND = 0, 1, 2, 4  # methods
METHODS = {RESULT: "Result", CALLBACK: "Callback", SET_CB: "SetCB", SEND: "Send"}


# --- values: each is a list of fields, a field its bytes and what they mean -----------------------

def number(value, meaning):
    return [(struct.pack("<i", value), f"{meaning} {value}")]


def method(value):
    return [(struct.pack("<i", value), f"method {value}, {METHODS[value]}")]


def sized(data, meaning):
    return number(len(data), "size") + [(data, meaning)]


def text(value):
    return sized(value.encode() + b"\0", f'"{value}"')


def callback_fields():
    return number(1, "callback id") + number(0, "its sequence number") + [(b"\0", "once: no")]


def bundle(entries):
    fields = number(len(entries), "number of entries")
    for key, value in entries.items():
        is_text = isinstance(value, str)
        fields += [(bytes([TEXT if is_text else BYTES]), "a text" if is_text else "bytes")]
        fields += text(key) + (text(value) if is_text else sized(value, "the value"))
    return number(sum(len(data) for data, _ in fields), "size of the bundle") + fields


# --- frames ---------------------------------------------------------------------------------------

def show(channel, fields):
    for data, meaning in fields:
        for at in range(0, len(data), 16):
            shown = f"{channel:<13}{data[at:at + 16].hex(' '):<49}{meaning}"
            print(shown.rstrip())
            channel = meaning = ""


def say(name, channel, fields):
    fields = number(sum(len(data) for data, _ in fields), "length of the frame") + fields
    show(f"{name} >", fields)
    channel.sendall(b"".join(data for data, _ in fields))


class Frame:
    """Reads the values of one frame and remembers what they were."""

    def __init__(self, channel):
        self.fields = []
        self.left = channel.recv(4, socket.MSG_WAITALL)
        length = self.number("length of the frame")
        self.left = channel.recv(length, socket.MSG_WAITALL)

    def take(self, size, meaning):
        data, self.left = self.left[:size], self.left[size:]
        if len(data) < size:
            sys.exit("the application has ended the connection")
        self.fields.append((data, meaning))
        return data

    def number(self, meaning):
        (value,) = struct.unpack("<i", self.take(4, ""))
        self.fields[-1] = (self.fields[-1][0], f"{meaning} {value}")
        return value

    def method(self):
        value = self.number("method")
        self.fields[-1] = (self.fields[-1][0], f"method {value}, {METHODS[value]}")

    def text(self):
        data = self.take(self.number("size"), "")
        value = data[:-1].decode()
        self.fields[-1] = (data, f'"{value}"')
        return value

    def bundle(self):
        entries = {}
        self.number("size of the bundle")
        for _ in range(self.number("number of entries")):
            kind = self.take(1, "")[0]
            self.fields[-1] = (self.fields[-1][0], "a text" if kind == TEXT else "bytes")
            key = self.text()
            entries[key] = self.text() if kind == TEXT else \
                self.take(self.number("size"), "the value")
        return entries


# --- the conversation -----------------------------------------------------------------------------

def hello(name, kind, path, token):
    channel = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    channel.connect(path)
    say(name, channel, [(b"NVRP\1", "\"NVRP\", version 1"), (bytes([kind]), f"the {name} socket"),
                        (token, "random token"), (bytes([len(CLIENT_ID)]), "size of the sender"),
                        (CLIENT_ID, f'"{CLIENT_ID.decode()}"')])
    return channel


def main():
    app_id, action_id, params = sys.argv[1:]
    folder = os.environ.get("NELVO_HOST_RUNTIME_DIR") or (
        os.environ["XDG_RUNTIME_DIR"] + "/nelvo" if "XDG_RUNTIME_DIR" in os.environ
        else f"/tmp/nelvo-{os.getuid()}")
    path = f"{folder}/{app_id}:message"
    token = os.urandom(16)  # says which two sockets belong together

    main_socket = hello("main", 0, path, token)
    callback_socket = hello("callback", 1, path, token)
    welcome = Frame(main_socket)
    welcome.take(5, "\"NVRP\", version 1")
    show("main <", welcome.fields)

    say("main", main_socket, method(SET_CB) + callback_fields())
    reply = Frame(main_socket)
    reply.method()
    refused = reply.number("what SetCB returned:")
    show("main <", reply.fields)
    if refused:
        sys.exit("the application does not admit this client")

    say("main", main_socket, method(SEND) + bundle({
        "actionId": action_id, "requestId": struct.pack("<Q", REQUEST_ID), "actionParams": params}))
    answer = Frame(callback_socket)
    answer.method()
    answer.number("callback id")
    answer.number("its sequence number")
    answer.take(1, "once: no")
    answer.text()
    response = answer.bundle()
    show("callback <", answer.fields)
    print(f"\n{response['status_code']}: {response.get('result') or response.get('status_msg')}")


if __name__ == "__main__":
    main()
