#!/usr/bin/env python3
# Managed by Lumora: do not edit, it is rewritten whenever Lumora starts.
# notch-cursor-hook v8
#
# Cursor agent hook. Tells Lumora what the agent is about to run (so a prompt
# that waits on the user can be shown) and what it is doing. It never prints
# anything, so Cursor's own approval flow is untouched, and every failure is
# silent.
import json
import os
import socket
import stat
import sys
import time

CONNECT_TIMEOUT = 2.0
MAX_INPUT = 32 * 1024 * 1024
SOURCE = "cursor"

CLEAR_EVENTS = (
    "afterShellExecution", "afterMCPExecution", "afterFileEdit", "beforeSubmitPrompt",
    "stop", "postToolUse", "postToolUseFailure",
)
READ_ONLY_WORDS = ("read", "grep", "glob", "search", "list", "fetch", "outline", "codebase", "semantic")
PATH_KEYS = ("path", "file_path", "target_file", "relative_workspace_path", "uri")


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


def send(messages):
    """Writes every message as one line on a single connection; never waits for a reply."""
    sock = None
    try:
        sock = connect(CONNECT_TIMEOUT)
        if sock is None:
            return None
        payload = "".join(json.dumps(m, separators=(",", ":")) + "\n" for m in messages)
        sock.sendall(payload.encode("utf-8"))
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


def main():
    data = read_input()
    if data is None:
        return
    event = text(data.get("hook_event_name"))
    session_id = text(data.get("conversation_id")) or text(data.get("session_id"))
    if not session_id or not event:
        return
    roots = data.get("workspace_roots")
    cwd = text(roots[0]) if isinstance(roots, list) and roots else text(data.get("cwd"))
    base = {"v": 1, "source": SOURCE, "session_id": session_id, "cwd": cwd, "ts": time.time()}
    model = text(data.get("model")) or text(data.get("model_id"))
    if model:
        base["model"] = model
    transcript = text(data.get("transcript_path"))

    def line(action, **fields):
        message = dict(base)
        message["action"] = action
        message.update({k: v for k, v in fields.items() if v is not None})
        return message

    def pending(kind, command, tool_name=""):
        return line("pending", kind=kind, command=command[:200], tool_name=tool_name,
                    transcript_path=transcript)

    def activity(status, title):
        return line("activity", status=status, title=title[:120])

    tool_input = data.get("tool_input") if isinstance(data.get("tool_input"), dict) else {}
    messages = []
    if event == "beforeShellExecution":
        command = text(data.get("command")) or text(tool_input.get("command"))
        messages.append(pending("shell", command, "Shell"))
        messages.append(activity("shell", "Running: " + command[:80]))
    elif event == "beforeMCPExecution":
        tool = (text(data.get("tool_name")) or text(data.get("server"))
                or text(data.get("url")) or text(data.get("command")) or "MCP tool")
        messages.append(pending("mcp", tool, tool))
        messages.append(activity("tool", "Calling " + tool))
    elif event == "preToolUse":
        tool = text(data.get("tool_name"))
        lowered = tool.lower()
        if any(word in lowered for word in ("shell", "bash")):
            command = text(tool_input.get("command"))
            messages.append(activity("shell", "Running: " + command[:80] if command else "Working…"))
        elif "mcp" in lowered:
            messages.append(activity("tool", "Calling " + tool))
        elif any(word in lowered for word in READ_ONLY_WORDS):
            messages.append(activity("running", "Working…"))
        else:
            path = ""
            for key in PATH_KEYS:
                path = text(tool_input.get(key))
                if path:
                    break
            messages.append(pending("tool", path, tool))
            name = os.path.basename(path.rstrip("/")) if path else ""
            messages.append(activity("editing", "Editing " + (name or "file")))
    elif event in CLEAR_EVENTS:
        messages.append(line("pending-clear"))
        if event == "stop":
            messages.append(line("activity-clear"))
        else:
            messages.append(activity("running", "Working…"))
    else:
        return
    send(messages)


if __name__ == "__main__":
    try:
        main()
    except BaseException:
        pass
    os._exit(0)
