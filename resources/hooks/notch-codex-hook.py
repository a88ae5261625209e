#!/usr/bin/env python3
# Managed by Lumora: do not edit, it is rewritten whenever Lumora starts.
# notch-codex-hook v5
#
# Codex hook. Clears Lumora's marker when a turn starts or ends and, for a
# permission prompt, waits for the answer given in Lumora and prints Codex's
# decision. Every failure is silent: when Lumora is not running, Codex shows
# its own prompt.
import json
import os
import socket
import stat
import sys
import time

CONNECT_TIMEOUT = 3.0
GATE_TIMEOUT = 1795.0
MAX_INPUT = 32 * 1024 * 1024
SOURCE = "codex"


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


def send(message, wait=None):
    """Writes one line; with `wait` seconds, returns the reply's behavior (or None)."""
    sock = None
    try:
        sock = connect(CONNECT_TIMEOUT)
        if sock is None:
            return None
        sock.sendall((json.dumps(message, separators=(",", ":")) + "\n").encode("utf-8"))
        if wait is None:
            return None
        deadline = time.monotonic() + wait
        buffer = b""
        while b"\n" not in buffer:
            left = deadline - time.monotonic()
            if left <= 0:
                return None
            sock.settimeout(left)
            chunk = sock.recv(4096)
            if not chunk:
                break
            buffer += chunk
        reply = json.loads(buffer.split(b"\n", 1)[0].decode("utf-8"))
        behavior = reply.get("behavior") if isinstance(reply, dict) else None
        return behavior if behavior in ("allow", "deny") else None
    except Exception:
        return None
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


def command_detail(command):
    """A shell command as one line: `bash -lc "<script>"` reads as the script."""
    if isinstance(command, str):
        return command
    if isinstance(command, list):
        items = [text(item) for item in command]
        if len(items) >= 3 and items[1] in ("-lc", "-c"):
            return items[-1]
        return " ".join(items)
    return ""


def patch_files(container):
    files = []
    changes = container.get("changes")
    if isinstance(changes, dict):
        files.extend(str(key) for key in changes)
    elif isinstance(changes, list):
        for change in changes:
            if isinstance(change, dict):
                files.append(text(change.get("path")) or text(change.get("file")))
            else:
                files.append(text(change))
    listed = container.get("files")
    if isinstance(listed, list):
        files.extend(text(item) for item in listed)
    patch = container.get("patch")
    if isinstance(patch, str):
        for line in patch.splitlines():
            for prefix in ("*** Add File: ", "*** Update File: ", "*** Delete File: "):
                if line.startswith(prefix):
                    files.append(line[len(prefix):].strip())
    return [f for f in files if f]


def main():
    action = sys.argv[1] if len(sys.argv) > 1 else "clear"
    data = read_input()
    if data is None:
        return
    session_id = text(data.get("session_id"))
    if not session_id:
        return
    message = {"v": 1, "source": SOURCE, "session_id": session_id, "action": action}
    cwd = text(data.get("cwd"))
    if cwd:
        message["cwd"] = cwd
    tool_name = text(data.get("tool_name"))
    if tool_name:
        message["tool_name"] = tool_name

    if action != "gate":
        send(message)
        return

    tool_input = data.get("tool_input") if isinstance(data.get("tool_input"), dict) else {}
    detail = command_detail(tool_input.get("command", data.get("command")))
    if not detail:
        for container in (tool_input, data):
            if any(key in container for key in ("changes", "files", "patch")):
                names = [os.path.basename(f.rstrip("/")) or f for f in patch_files(container)[:4]]
                detail = "patch: " + ", ".join(names)
                break
    if detail:
        message["detail"] = detail
    reason = text(data.get("justification")) or text(tool_input.get("justification"))
    if not reason:
        reason = text(tool_input.get("description"))
    if reason:
        message["reason"] = reason
    sandbox = data.get("sandbox_permissions", tool_input.get("sandbox_permissions"))
    message["escalated"] = sandbox == "require_escalated"

    behavior = send(message, wait=GATE_TIMEOUT)
    if behavior == "allow":
        decision = {"behavior": "allow"}
    elif behavior == "deny":
        decision = {"behavior": "deny", "message": "Denied from Lumora"}
    else:
        return
    output = {
        "continue": True,
        "hookSpecificOutput": {"hookEventName": "PermissionRequest", "decision": decision},
    }
    sys.stdout.write(json.dumps(output) + "\n")
    sys.stdout.flush()


if __name__ == "__main__":
    try:
        main()
    except BaseException:
        pass
    try:
        sys.stdout.flush()
    except BaseException:
        pass
    os._exit(0)
