#include "lumora/app/session_notifications.hpp"

#include <spdlog/spdlog.h>

#include <charconv>

#include "lumora/approvals/approval_labels.hpp"
#include "scrivet/transcript_records.hpp"

namespace lumora {

namespace NotificationKeys {

namespace {

// A number as we write it: decimal digits, no sign, no leading zero.
std::optional<uint64_t> number(std::string_view text) {
    if (text.size() > 1 && text.front() == '0') return std::nullopt;
    uint64_t value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size() || text.empty()) return std::nullopt;
    return value;
}

}  // namespace

std::string approve(uint64_t promptId) { return "approve:" + std::to_string(promptId); }
std::string deny(uint64_t promptId) { return "deny:" + std::to_string(promptId); }
std::string answer(uint64_t promptId, int option) {
    return "answer:" + std::to_string(promptId) + ":" + std::to_string(option);
}

std::optional<Press> parse(const std::string& key) {
    if (key == Notifier::defaultAction) return Press{};
    std::string_view rest(key);
    auto take = [&](std::string_view prefix) {
        if (!rest.starts_with(prefix)) return false;
        rest.remove_prefix(prefix.size());
        return true;
    };
    if (take("approve:") || take("deny:")) {
        auto id = number(rest);
        if (!id || *id == 0) return std::nullopt;
        return Press{key.starts_with("approve:") ? Press::Kind::approve : Press::Kind::deny, *id, 0};
    }
    if (take("answer:")) {
        auto colon = rest.find(':');
        if (colon == std::string_view::npos) return std::nullopt;
        auto id = number(rest.substr(0, colon));
        auto option = number(rest.substr(colon + 1));
        if (!id || *id == 0 || !option || *option < 1 || *option > 3) return std::nullopt;
        return Press{Press::Kind::answer, *id, static_cast<int>(*option)};
    }
    return std::nullopt;
}

}  // namespace NotificationKeys

namespace {

bool holdsPrompt(const AgentInstance& a) { return a.approval && a.approval->approvable && a.approval->gateId != 0; }

// "wants to run", "wants to edit", "wants to use WebFetch", "has a question", "needs you".
std::string want(const AgentInstance& a) {
    if (a.approval) {
        auto kind = scrivet::pendingApprovalForTool(a.approval->toolName);
        if (kind == scrivet::PendingApproval::edit) return "wants to edit";
        if (kind == scrivet::PendingApproval::run) return "wants to run";
        if (!a.approval->toolName.empty()) return "wants to use " + a.approval->toolName;
    }
    if (a.question) return "has a question";
    return "needs you";
}

// The ask line: the command or file whole (the service wraps it), then its reason.
std::string ask(const AgentInstance& a) {
    if (a.approval) {
        std::string body = a.approval->detail.value_or(a.approval->toolName);
        if (a.approval->hasContext()) body += "\n" + *a.approval->reason;
        return body;
    }
    if (a.question) {
        std::string body = a.question->text;
        if (!a.question->options.empty()) body += "\n" + a.question->optionsLine();
        return body;
    }
    return a.summary ? scrivet::collapseWhitespace(*a.summary) : std::string();
}

}  // namespace

SessionNotifications::SessionNotifications(std::unique_ptr<Notifier> notifier, Actions actions, RunLoop& loop)
    : notifier_(std::move(notifier)), actions_(std::move(actions)), loop_(loop) {}

SessionNotifications::~SessionNotifications() {
    stop();
    *alive_ = false;
}

void SessionNotifications::start() {
    if (running_ || !notifier_) return;
    running_ = true;
    // Events arrive on the notifier's thread; everything is decided on the main loop.
    auto post = [this, alive = alive_](std::function<void()> task) {
        loop_.post([alive, task = std::move(task)] {
            if (*alive) task();
        });
    };
    Notifier::Events events;
    events.availability = [this, post](Notifier::Capabilities caps) { post([this, caps] { onAvailability(caps); }); };
    events.shown = [this, post](const std::string& slot, uint64_t tag) { post([this, slot, tag] { onShown(slot, tag); }); };
    events.closed = [this, post](const std::string& slot) { post([this, slot] { onClosed(slot); }); };
    events.actionInvoked = [this, post](const std::string& slot, const std::string& key) {
        post([this, slot, key] { onPress(slot, key); });
    };
    notifier_->start(std::move(events));
}

void SessionNotifications::stop() {
    if (!running_) return;
    running_ = false;
    notifier_->stop();
    shown_.clear();
    risen_.clear();
    finished_.clear();
    notifiedGate_.clear();
    handedBackAt_.clear();
    std::lock_guard lock(mutex_);
    held_.clear();
    caps_ = {};
}

void SessionNotifications::setSettings(Settings settings) {
    if (settings == settings_) return;
    settings_ = settings;
    reconcile();
}

void SessionNotifications::published(const std::vector<AgentInstance>& instances) {
    instances_ = instances;
    reconcile();
}

void SessionNotifications::alerted(const PeekEvent& peek) {
    if (peek.done) {
        if (settings_.onDone) finished_.insert(peek.sessionId);
    } else {
        risen_.insert(peek.sessionId);
    }
    reconcile();
}

bool SessionNotifications::holds(const std::string& sessionId, uint64_t gateId) const {
    std::lock_guard lock(mutex_);
    return held_.count({sessionId, gateId}) > 0;
}

bool SessionNotifications::canAnswer() const {
    std::lock_guard lock(mutex_);
    return running_ && settings_.enabled && caps_.available && caps_.actions;
}

const AgentInstance* SessionNotifications::instance(const std::string& sessionId) const {
    for (const auto& a : instances_)
        if (a.id == sessionId) return &a;
    return nullptr;
}

std::optional<SessionNotifications::Shown> SessionNotifications::wanted(const AgentInstance& a) {
    Notifier::Capabilities caps;
    {
        std::lock_guard lock(mutex_);
        caps = caps_;
    }
    if (!settings_.enabled || !caps.available) return std::nullopt;
    if (actions_.panelShows && actions_.panelShows(a.id)) return std::nullopt;

    auto current = shown_.find(a.id);
    Shown out;
    out.content.summary = a.projectName + " " + want(a);
    out.content.body = ask(a);
    out.content.actions = {{Notifier::defaultAction, "Open"}};
    if (a.status == AgentStatus::attention) {
        finished_.erase(a.id);
        out.content.urgent = true;
        if (holdsPrompt(a) && caps.actions) {
            handedBackAt_.erase(a.id);
            uint64_t gate = a.approval->gateId;
            // A prompt whose notification was dismissed is not shown again.
            if (current == shown_.end() && notifiedGate_[a.id] == gate) return std::nullopt;
            out.gateId = gate;
            out.content.tag = gate;
            out.content.actions.push_back({NotificationKeys::approve(gate), ApprovalLabels::approve});
            out.content.actions.push_back({NotificationKeys::deny(gate), ApprovalLabels::deny});
            return out;
        }
        // The prompt we showed buttons for was answered elsewhere or handed
        // back. A newer prompt of the session may be on its way (its rule
        // check runs first): it would replace this one in place, so the
        // notification stays for a moment before it closes.
        if (current != shown_.end() && current->second.gateId != 0) {
            auto now = std::chrono::steady_clock::now();
            auto [at, fresh] = handedBackAt_.try_emplace(a.id, now);
            if (now - at->second < kHandBackGrace) {
                if (fresh) loop_.postAfter(kHandBackGrace, [this, alive = alive_] {
                    if (*alive) reconcile();
                });
                return current->second;
            }
            handedBackAt_.erase(at);
            risen_.erase(a.id);
            return std::nullopt;
        }
        if (risen_.count(a.id)) return out;
        return std::nullopt;
    }
    risen_.erase(a.id);
    handedBackAt_.erase(a.id);
    if (a.status == AgentStatus::working) finished_.erase(a.id);
    if (!finished_.count(a.id)) return std::nullopt;
    out.done = true;
    out.content.summary = a.projectName + " finished its turn";
    return out;
}

void SessionNotifications::reconcile() {
    if (!running_) return;
    std::set<std::string> live;
    for (const auto& a : instances_) {
        live.insert(a.id);
        auto want = wanted(a);
        auto it = shown_.find(a.id);
        if (!want) {
            if (it != shown_.end()) {
                notifier_->close(a.id);
                shown_.erase(it);
                setHeld(a.id, 0);
            }
            continue;
        }
        if (it != shown_.end() && it->second.content == want->content) continue;
        // The old prompt's buttons are on their way out.
        if (it != shown_.end() && it->second.gateId != want->gateId) setHeld(a.id, 0);
        if (want->gateId != 0) notifiedGate_[a.id] = want->gateId;
        shown_[a.id] = *want;
        notifier_->show(a.id, want->content);
    }
    for (auto it = shown_.begin(); it != shown_.end();) {
        if (live.count(it->first)) {
            ++it;
            continue;
        }
        notifier_->close(it->first);
        setHeld(it->first, 0);
        it = shown_.erase(it);
    }
    std::erase_if(risen_, [&](const std::string& id) { return !live.count(id); });
    std::erase_if(finished_, [&](const std::string& id) { return !live.count(id); });
    std::erase_if(notifiedGate_, [&](const auto& entry) { return !live.count(entry.first); });
    std::erase_if(handedBackAt_, [&](const auto& entry) { return !live.count(entry.first); });
}

void SessionNotifications::setHeld(const std::string& sessionId, uint64_t gateId) {
    bool changed = false;
    {
        std::lock_guard lock(mutex_);
        for (auto it = held_.begin(); it != held_.end();) {
            if (it->first == sessionId && it->second != gateId) {
                it = held_.erase(it);
                changed = true;
            } else {
                ++it;
            }
        }
        if (gateId != 0) changed = held_.insert({sessionId, gateId}).second || changed;
    }
    if (changed && actions_.holdsChanged) actions_.holdsChanged();
}

void SessionNotifications::onShown(const std::string& sessionId, uint64_t tag) {
    auto it = shown_.find(sessionId);
    if (!running_ || it == shown_.end() || tag == 0 || it->second.gateId != tag) return;
    setHeld(sessionId, tag);
}

void SessionNotifications::onClosed(const std::string& sessionId) {
    if (!running_) return;
    // Dismissed, expired or refused: it answers nothing, and the session gets
    // a new notification only when it needs the user anew.
    auto it = shown_.find(sessionId);
    uint64_t gate = it != shown_.end() ? it->second.gateId : 0;
    if (it != shown_.end()) shown_.erase(it);
    risen_.erase(sessionId);
    finished_.erase(sessionId);
    setHeld(sessionId, 0);
    if (gate != 0 && actions_.dismissed) actions_.dismissed(sessionId, gate);
}

void SessionNotifications::onPress(const std::string& sessionId, const std::string& key) {
    if (!running_) return;
    auto press = NotificationKeys::parse(key);
    if (!press) {
        spdlog::info("[notify] ignored an action we never offered on {}'s notification", sessionId);
        return;
    }
    if (press->kind == NotificationKeys::Press::Kind::open) {
        if (actions_.open) actions_.open(sessionId);
        return;
    }
    if (press->kind == NotificationKeys::Press::Kind::answer) {
        spdlog::info("[notify] ignored {} of session {}: questions are answered in the agent", key, sessionId);
        return;
    }
    const AgentInstance* a = instance(sessionId);
    if (!a || !holdsPrompt(*a) || a->approval->gateId != press->promptId) {
        spdlog::info("[notify] ignored {} of session {}: that prompt is no longer the one waiting", key, sessionId);
        return;
    }
    if (actions_.decide) actions_.decide(*a->approval, press->kind == NotificationKeys::Press::Kind::approve);
}

void SessionNotifications::onAvailability(Notifier::Capabilities caps) {
    if (!running_) return;
    {
        std::lock_guard lock(mutex_);
        caps_ = caps;
    }
    // A new service shows nothing of the old one's: what still waits is shown anew.
    shown_.clear();
    notifiedGate_.clear();
    {
        std::lock_guard lock(mutex_);
        held_.clear();
    }
    // Whether prompts can be answered from here changed with it.
    if (actions_.holdsChanged) actions_.holdsChanged();
    reconcile();
}

}  // namespace lumora
