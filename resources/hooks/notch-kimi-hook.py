#!/usr/bin/env python3
# Managed by Lumora: do not edit, it is rewritten whenever Lumora starts.
# notch-kimi-hook v3
#
# Kimi hook. Turns Kimi's notifications into Lumora "needs you" markers and
# clears them when a turn starts or ends. Kimi is never gated, and every
# failure is silent.
import json
import os
import socket
import stat
import sys
import time

CONNECT_TIMEOUT = 3.0
MAX_INPUT = 32 * 1024 * 1024
SOURCE = "kimi"

PERMISSION_WORDS = ("permission", "approval", "approve")
QUESTION_WORDS = ("question", "waiting for your", "needs your", "waiting for input")
DETAIL_KEYS = ("message", "title", "text", "body", "notification")
# The fields that carry what the notification says; paths, ids and the rest
# of the payload never decide its kind.
MESSAGE_KEYS = DETAIL_KEYS + ("notification_type", "type", "kind", "reason", "summary")


def home():
    h = os.environ.get("HOME")
    if h:
        return h
    try:
        import pwd
        return pwd.getpwuid(os.getuid()).pw_dir or "/"
    except Exception:
        return "/"


def socket_path():
    override = os.environ.get("LUMORA_SOCKET")
    if override:
        return override
    if sys.platform == "darwin":
        return os.path.join(home(), "Library", "Application Support", "Lumora", "notch.sock")
    data = os.environ.get("XDG_DATA_HOME", "")
    if not data.startswith("/"):
        data = os.path.join(home(), ".local", "share")
    return os.path.join(data, "lumora", "notch.sock")


def socket_folder_is_private(path):
    """The socket's folder must be the user's own and writable by nobody else,
    or anyone could stand in for Lumora and answer the prompts."""
    try:
        st = os.stat(os.path.dirname(path) or ".")
    except OSError:
        return False
    return stat.S_ISDIR(st.st_mode) and st.st_uid == os.getuid() and not (st.st_mode & 0o022)


def connect(timeout):
    """A connected socket, or None. A full listen queue (EAGAIN) or a socket
    not yet listening (ECONNREFUSED) is tried again until the deadline."""
    path = socket_path()
    if not socket_folder_is_private(path):
        return None
    try:
        if not stat.S_ISSOCK(os.stat(path).st_mode):
            return None
    except OSError:
        return None
    deadline = time.monotonic() + timeout
    delay = 0.005
    while True:
        sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        left = deadline - time.monotonic()
        if left <= 0:
            sock.close()
            return None
        sock.settimeout(left)
        try:
            sock.connect(path)
            return sock
        except (BlockingIOError, ConnectionRefusedError, InterruptedError):
            sock.close()
        except Exception:
            sock.close()
            return None
        time.sleep(min(delay, max(deadline - time.monotonic(), 0)))
        delay = min(delay * 2, 0.05)


def send(message):
    sock = None
    try:
        sock = connect(CONNECT_TIMEOUT)
        if sock is None:
            return None
        sock.sendall((json.dumps(message, separators=(",", ":")) + "\n").encode("utf-8"))
    except Exception:
        pass
    finally:
        if sock is not None:
            try:
                sock.close()
            except Exception:
                pass


def text(value):
    return value if isinstance(value, str) else ""


def read_input():
    raw = sys.stdin.buffer.read(MAX_INPUT + 1)
    if not raw or len(raw) > MAX_INPUT:
        return None
    data = json.loads(raw.decode("utf-8"))
    return data if isinstance(data, dict) else None


def message_strings(value, depth=0):
    """The strings under the message fields, at most three levels deep."""
    if depth >= 3:
        return
    if isinstance(value, dict):
        for key, item in value.items():
            if isinstance(item, str):
                if key in MESSAGE_KEYS:
                    yield item
            else:
                yield from message_strings(item, depth + 1)
    elif isinstance(value, list):
        for item in value:
            yield from message_strings(item, depth + 1)


def words(texts):
    """The texts in lower case without the words that name files or folders."""
    kept = []
    for text in texts:
        kept.extend(w for w in text.lower().split() if "/" not in w and "\\" not in w)
    return " ".join(kept)


def main():
    action = sys.argv[1] if len(sys.argv) > 1 else "clear"
    data = read_input()
    if data is None:
        return
    session_id = text(data.get("session_id"))
    if not session_id:
        return
    message = {"v": 1, "source": SOURCE, "session_id": session_id}
    cwd = text(data.get("cwd"))
    if cwd:
        message["cwd"] = cwd

    if action != "notify":
        message["action"] = "clear"
        send(message)
        return

    blob = words(message_strings(data))
    if any(word in blob for word in PERMISSION_WORDS):
        kind = "permission"
    elif any(word in blob for word in QUESTION_WORDS):
        kind = "question"
    else:
        message["action"] = "observe"
        message["detail"] = ",".join(sorted(str(k) for k in data))[:200]
        send(message)
        return
    message["action"] = "marker"
    message["kind"] = kind
    for key in DETAIL_KEYS:
        detail = text(data.get(key)).strip()
        if detail:
            message["detail"] = detail
            break
    tool_name = text(data.get("tool_name"))
    if tool_name:
        message["tool_name"] = tool_name
    send(message)


if __name__ == "__main__":
    try:
        main()
    except BaseException:
        pass
    os._exit(0)
