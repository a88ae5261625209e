// lumora-opencode v3 — written by Lumora. Safe to delete.
// Reports OpenCode sessions to Lumora over its Unix socket: a permission
// prompt can be answered from Lumora while the terminal prompt stays live
// (whoever answers first wins), and a question shows as "needs you". It uses
// nothing but Node's own modules, and every failure is silent: without
// Lumora, OpenCode behaves as if this file were not here.
import fs from "node:fs";
import net from "node:net";
import path from "node:path";
const SOCKET = "";

const SEND_TIMEOUT_MS = 3000;
const GATE_TIMEOUT_MS = 600000;
const REMEMBERED_SESSIONS = 200;

function socketPath() {
  const override = process.env.LUMORA_SOCKET;
  return override ? override : SOCKET;
}

// The socket's folder must be the user's own and writable by nobody else, or
// anyone could stand in for Lumora and answer the prompts.
function socketFolderIsPrivate(file) {
  try {
    const st = fs.statSync(path.dirname(file));
    const uid = typeof process.getuid === "function" ? process.getuid() : st.uid;
    return st.isDirectory() && st.uid === uid && (st.mode & 0o022) === 0;
  } catch {
    return false;
  }
}

// Connects, trying again while the listen queue is full (EAGAIN) or the
// socket does not listen yet (ECONNREFUSED), until `connectMs` have passed.
// Resolves to a connected socket, or null.
function connect(file, connectMs) {
  return new Promise((resolve) => {
    const deadline = Date.now() + connectMs;
    let delay = 5;
    const attempt = () => {
      let sock;
      try {
        sock = net.createConnection(file);
      } catch {
        resolve(null);
        return;
      }
      sock.once("connect", () => {
        sock.removeAllListeners("error");
        resolve(sock);
      });
      sock.once("error", (err) => {
        try {
          sock.destroy();
        } catch {}
        const code = err && err.code;
        const left = deadline - Date.now();
        if ((code === "EAGAIN" || code === "ECONNREFUSED") && left > 0) {
          setTimeout(attempt, Math.min(delay, left));
          delay = Math.min(delay * 2, 50);
        } else {
          resolve(null);
        }
      });
    };
    attempt();
  });
}

// Writes one line; with `wantReply`, resolves to "allow", "deny" or null.
// `abort` receives a function that ends the wait early.
function exchange(message, timeoutMs, wantReply, abort) {
  return new Promise((resolve) => {
    let done = false;
    let buffer = "";
    let sock = null;
    let timer = null;
    const finish = (value) => {
      if (done) return;
      done = true;
      if (timer) clearTimeout(timer);
      try {
        if (sock) sock.destroy();
      } catch {}
      resolve(value);
    };
    const file = socketPath();
    let isSocket = false;
    try {
      isSocket = fs.statSync(file).isSocket();
    } catch {}
    if (!file || !isSocket || !socketFolderIsPrivate(file)) {
      finish(null);
      return;
    }
    timer = setTimeout(() => finish(null), timeoutMs);
    if (abort) abort(() => finish(null));
    connect(file, Math.min(timeoutMs, SEND_TIMEOUT_MS)).then((connected) => {
      if (!connected) {
        finish(null);
        return;
      }
      sock = connected;
      if (done) {
        sock.destroy();
        return;
      }
      sock.setEncoding("utf8");
      sock.on("error", () => finish(null));
      sock.on("close", () => finish(null));
      const line = JSON.stringify(message) + "\n";
      if (wantReply) {
        sock.write(line);
      } else {
        sock.end(line);
      }
      sock.on("data", (chunk) => {
        buffer += chunk;
        const end = buffer.indexOf("\n");
        if (end < 0) return;
        let behavior = null;
        try {
          const reply = JSON.parse(buffer.slice(0, end));
          if (reply && (reply.behavior === "allow" || reply.behavior === "deny")) behavior = reply.behavior;
        } catch {}
        finish(behavior);
      });
    });
  });
}

function text(value) {
  return typeof value === "string" ? value : "";
}

function questionFields(questions) {
  if (!Array.isArray(questions) || questions.length === 0) return {};
  const first = questions[0] && typeof questions[0] === "object" ? questions[0] : {};
  const options = [];
  for (const option of Array.isArray(first.options) ? first.options : []) {
    const label = text(option && typeof option === "object" ? option.label : option).trim();
    if (label) options.push(label.slice(0, 120));
    if (options.length === 8) break;
  }
  return {
    detail: text(first.question).trim().slice(0, 500),
    options,
    more_questions: questions.length - 1,
  };
}

export const LumoraPlugin = async (input) => {
  const directory = text(input && input.directory) || text(input && input.worktree) || process.cwd();
  const serverUrl = input && input.serverUrl ? String(input.serverUrl) : "";
  const greeted = [];
  const gates = new Map();

  const base = (sessionId, action) => ({ source: "opencode", session_id: sessionId, action, cwd: directory });
  const send = (message) => exchange(message, SEND_TIMEOUT_MS, false);

  const endGate = (sessionId) => {
    const stop = gates.get(sessionId);
    if (stop) {
      gates.delete(sessionId);
      stop();
    }
  };

  const clear = (sessionId) => {
    if (!sessionId) return;
    endGate(sessionId);
    send(base(sessionId, "clear"));
  };

  const replyToOpenCode = async (permissionId, behavior) => {
    if (!serverUrl || !permissionId) return;
    try {
      const url = new URL("/permission/" + encodeURIComponent(permissionId) + "/reply", serverUrl);
      await fetch(url, {
        method: "POST",
        headers: {
          "content-type": "application/json",
          "x-opencode-directory": encodeURIComponent(directory),
        },
        body: JSON.stringify({ reply: behavior === "allow" ? "once" : "reject" }),
      });
    } catch {}
  };

  const gate = async (sessionId, permissionId, fields) => {
    endGate(sessionId);
    const behavior = await exchange({ ...base(sessionId, "gate"), ...fields }, GATE_TIMEOUT_MS, true, (stop) =>
      gates.set(sessionId, stop),
    );
    if (behavior) await replyToOpenCode(permissionId, behavior);
  };

  const handle = (event) => {
    if (!event || typeof event !== "object") return;
    const props = event.properties && typeof event.properties === "object" ? event.properties : {};
    const sessionId = text(props.sessionID);
    switch (event.type) {
      case "session.created":
        clear(text(props.info && props.info.id) || sessionId);
        break;
      case "message.part.updated": {
        const part = props.part && typeof props.part === "object" ? props.part : {};
        const sid = text(part.sessionID) || sessionId;
        if (part.type !== "text" || part.synthetic || !text(part.text).trim() || !sid) break;
        if (greeted.includes(sid)) break;
        greeted.push(sid);
        if (greeted.length > REMEMBERED_SESSIONS) greeted.shift();
        clear(sid);
        break;
      }
      case "session.idle":
      case "permission.replied":
      case "question.replied":
      case "question.rejected":
        clear(sessionId);
        break;
      case "permission.asked":
      case "permission.updated": {
        if (!sessionId) break;
        const permission = text(props.permission) || text(props.type);
        let patterns = props.patterns !== undefined ? props.patterns : props.pattern;
        if (!Array.isArray(patterns)) patterns = patterns === undefined ? [] : [patterns];
        patterns = patterns.map(text).filter((p) => p);
        const detail = permission === "bash" ? patterns.join(" && ") : patterns[0] || "";
        const metadata = props.metadata && typeof props.metadata === "object" ? props.metadata : {};
        const reason = text(metadata.description) || text(metadata.title) || text(props.title);
        const fields = { tool_name: permission };
        if (detail) fields.detail = detail;
        if (reason) fields.reason = reason;
        gate(sessionId, text(props.id), fields);
        break;
      }
      case "question.asked":
        if (!sessionId) break;
        send({ ...base(sessionId, "marker"), kind: "question", tool_name: "question", ...questionFields(props.questions) });
        break;
      default:
        break;
    }
  };

  return {
    event: async ({ event }) => {
      try {
        handle(event);
      } catch {}
    },
  };
};
