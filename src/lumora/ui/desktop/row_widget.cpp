#include <QApplication>
#include <QFontDatabase>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QPushButton>

#include <algorithm>

#include "lumora/ui/desktop/desktop_parts.hpp"
#include "lumora/ui/frame.hpp"
#include "lumora/ui/view_renderer.hpp"

namespace lumora::ui::desktop {

namespace {

constexpr int kMargin = 14;       // left and right
constexpr int kLine = 19;         // one line of row text
constexpr int kButtonHeight = 26;
constexpr int kGap = 6;

QString q(const std::string& s) { return QString::fromStdString(scrivet::collapseWhitespace(sanitize(s))); }

QFont bodyFont(int px, bool bold = false) {
    QFont f = QApplication::font();
    f.setPixelSize(px);
    f.setBold(bold);
    return f;
}

QFont monoFont() {
    QFont f = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    f.setPixelSize(12);
    return f;
}

QString branchText(const AgentInstance& a) {
    if (a.isWorktree && a.worktreeName && !a.worktreeName->empty()) return "wt:" + q(*a.worktreeName);
    if (a.gitBranch && !a.gitBranch->empty()) return q(*a.gitBranch);
    return {};
}

QString aboutText(const AgentInstance& a) {
    if (a.topic && !a.topic->empty()) return q(*a.topic);
    if (a.summary && !a.summary->empty()) return q(*a.summary);
    return {};
}

QString buttonStyle(const QColor& fill, const QColor& text, bool outline) {
    QColor hover = fill.lighter(118);
    if (outline) {
        return QString("QPushButton{background:transparent;color:%1;border:1px solid %1;border-radius:7px;"
                       "padding:2px 11px;font-weight:600;} QPushButton:hover{background:%2;}"
                       "QPushButton:disabled{color:%1;}")
            .arg(fill.name(), QColor(fill.red(), fill.green(), fill.blue(), 40).name(QColor::HexArgb));
    }
    return QString("QPushButton{background:%1;color:%2;border:none;border-radius:7px;padding:2px 11px;"
                   "font-weight:600;} QPushButton:hover{background:%3;}")
        .arg(fill.name(), text.name(), hover.name());
}

const char* namePrefix(ApprovalChoice::Kind k) {
    switch (k) {
        case ApprovalChoice::Kind::approve: return "approve-";
        case ApprovalChoice::Kind::deny: return "deny-";
        case ApprovalChoice::Kind::allowSession: return "session-";
        case ApprovalChoice::Kind::allowAlways: return "always-";
    }
    return "choice-";
}

// Text wrapped anywhere (a command has no spaces to wait for), whole.
constexpr int kWrapAnywhere = Qt::TextWrapAnywhere | Qt::AlignLeft | Qt::AlignTop;

// The step a plan's line names: the one under way, else the next one to do.
QString planStep(const TaskPlan& plan) {
    if (const auto* active = plan.activeItem()) return q(active->activeForm.value_or(active->subject));
    for (const auto& item : plan.items) {
        if (item.status == TaskPlanItem::Status::pending) return "Next: " + q(item.subject);
    }
    return "All done";
}

}  // namespace

const TaskPlan* RowWidget::plan() const {
    if (compact()) return nullptr;
    const auto& plans = front_.model().plans;
    auto it = plans.find(id_);
    return it != plans.end() && !it->second.empty() ? &it->second : nullptr;
}

RowWidget::RowWidget(Front& front, const AgentInstance& instance, QWidget* parent)
    : QWidget(parent), front_(front), a_(instance), id_(instance.id) {
    setObjectName(QString::fromStdString("row-" + id_));
    setAttribute(Qt::WA_Hover);
    setMouseTracking(true);
    setCursor(Qt::ArrowCursor);
    describe();
    rebuildButtons();
}

void RowWidget::setInstance(const AgentInstance& instance) {
    a_ = instance;
    describe();
    rebuildButtons();
    update();
}

void RowWidget::describe() {
    // The painted text, for screen readers and for a hover over an elided label.
    QString project = q(a_.projectName.empty() ? a_.cwd : a_.projectName);
    QString branch = branchText(a_);
    QString status = QString::fromStdString(std::string(label(a_.status)));
    QString agent = QString::fromStdString(std::string(scrivet::displayName(a_.provider)));
    setAccessibleName(project + (branch.isEmpty() ? QString() : " · " + branch) + ", " + status + ", " + agent);
    QString about = aboutText(a_);
    QString tip = project + (branch.isEmpty() ? QString() : " · " + branch) + "\n" + q(a_.cwd) +
                  (about.isEmpty() ? QString() : "\n" + about.left(300));
    if (const TaskPlan* p = plan()) {
        // The whole plan, step by step, where the row has room for one line of it.
        tip += "\n\nPlan " + QString::fromStdString(p->badge());
        for (const auto& item : p->items) {
            const char* mark = item.status == TaskPlanItem::Status::completed    ? "✓ "
                               : item.status == TaskPlanItem::Status::inProgress ? "▸ "
                                                                                 : "○ ";
            tip += "\n" + QString(mark) + q(item.subject).left(200);
        }
    }
    setToolTip(tip);
}

bool RowWidget::compact() const {
    return front_.model().settings.idlePolicy != IdleAgentPolicy::keepFull && a_.isDormant(front_.model().now);
}

void RowWidget::rebuildButtons() {
    // The buttons follow the held request, its choices and its confirmation.
    std::string key;
    auto confirmation = front_.confirmation(id_);
    const auto& choices = front_.choices(id_);
    if (confirmation) key = "c";
    else if (a_.approval) for (const auto& c : choices) key += std::to_string(int(c.kind)) + c.label + "\n";
    key += "|";
    if (a_.question) for (const auto& o : a_.question->options) key += o + "\n";
    if (key == buttonsFor_ && !buttons_.empty()) return;
    buttonsFor_ = key;
    for (auto* b : buttons_) b->deleteLater();
    buttons_.clear();

    const Palette& pal = front_.palette();
    if (a_.approval && !confirmation) {
        for (const auto& c : choices) {
            auto* b = new QPushButton(QString::fromStdString(sanitize(c.label)), this);
            b->setObjectName(QString::fromStdString(namePrefix(c.kind) + id_));
            b->setFocusPolicy(Qt::NoFocus);
            b->setCursor(Qt::PointingHandCursor);
            b->setFont(bodyFont(12, true));
            bool deny = c.kind == ApprovalChoice::Kind::deny;
            bool approve = c.kind == ApprovalChoice::Kind::approve;
            if (approve) b->setStyleSheet(buttonStyle(statusColour(AgentStatus::working).darker(115), Qt::white, false));
            else if (deny) b->setStyleSheet(buttonStyle(statusColour(AgentStatus::attention), Qt::white, true));
            else b->setStyleSheet(buttonStyle(pal.muted, pal.text, true));
            auto kind = c.kind;
            QObject::connect(b, &QPushButton::clicked, [this, kind] {
                std::string id = id_;
                Front& front = front_;
                // choose() rebuilds the rows, which may delete this button.
                QTimer::singleShot(0, [&front, id, kind] { front.choose(id, kind); });
            });
            b->show();
            buttons_.push_back(b);
        }
    }
    if (a_.question) {
        // The options, to read at a glance; the agent's own prompt takes the answer.
        int n = 0;
        for (const auto& o : a_.question->options) {
            auto* b = new QPushButton(QString::number(n + 1) + "  " + q(o), this);
            b->setObjectName(QString::fromStdString("option-" + id_ + "-" + std::to_string(n++)));
            b->setFocusPolicy(Qt::NoFocus);
            b->setFont(bodyFont(12));
            b->setEnabled(false);
            b->setToolTip("Answer in the agent's own prompt");
            b->setStyleSheet(buttonStyle(statusColour(AgentStatus::waiting), pal.text, true));
            b->show();
            buttons_.push_back(b);
        }
    }
    place(width() > 0 ? width() : kPanelWidth, true);
}

int RowWidget::heightFor(int width) { return place(width, false); }

int RowWidget::place(int width, bool move) {
    int inner = std::max(80, width - 2 * kMargin);
    int y = kRowPad;
    if (compact()) return y + kLine + kRowPad - 4;
    y += kLine;  // project, branch, age
    y += kLine;  // status, agent, model, context
    if (!aboutText(a_).isEmpty() || a_.subagentCount > 0) y += kLine;
    if (plan()) y += kLine;

    QFontMetrics mono(monoFont());
    QFontMetrics body(bodyFont(12));
    command_ = reason_ = question_ = confirm_ = QRect();
    auto confirmation = front_.confirmation(id_);
    size_t next = 0;
    auto flow = [&](size_t count) {
        // Buttons flow left to right and wrap to as many lines as they need.
        int x = kMargin + 10, lineTop = y;
        for (size_t i = 0; i < count && next < buttons_.size(); ++i, ++next) {
            QPushButton* b = buttons_[next];
            QSize s(std::min(inner - 10, b->sizeHint().width() + 6), kButtonHeight);
            if (x > kMargin + 10 && x + s.width() > kMargin + inner) {
                x = kMargin + 10;
                lineTop += kButtonHeight + kGap;
            }
            if (move) b->setGeometry(x, lineTop, s.width(), s.height());
            x += s.width() + kGap;
        }
        y = lineTop + kButtonHeight + kGap;
    };

    if (a_.approval) {
        y += 4;
        std::string cmd = ViewRenderer::approvalLine(*a_.approval);
        if (a_.approval->detail) {
            // The command whole, wrapped, never clipped: its tail is what matters.
            cmd = (a_.approval->toolName.empty() ? "Tool" : sanitize(a_.approval->toolName)) + ": " +
                  sanitize(*a_.approval->detail);
        }
        QRect box = mono.boundingRect(QRect(0, 0, inner - 20 - (a_.approval->escalated ? 0 : 0), 100000), kWrapAnywhere,
                                      QString::fromStdString(cmd));
        int badge = a_.approval->escalated ? kLine : 0;
        command_ = QRect(kMargin, y, inner, box.height() + 12 + badge);
        y += command_.height() + 4;
        if (a_.approval->hasContext()) {
            QRect r = body.boundingRect(QRect(0, 0, inner - 10, 100000), Qt::TextWordWrap | Qt::TextWrapAnywhere,
                                        q(*a_.approval->reason));
            reason_ = QRect(kMargin + 10, y, inner - 10, r.height());
            y += r.height() + 4;
        }
        if (confirmation) {
            confirm_ = QRect(kMargin + 10, y, inner - 10, kLine);
            y += kLine + 2;
        } else if (!front_.choices(id_).empty()) {
            y += 2;
            flow(front_.choices(id_).size());
        }
    } else if (confirmation) {
        confirm_ = QRect(kMargin + 10, y, inner - 10, kLine);
        y += kLine + 2;
    }
    if (a_.question) {
        QRect r = body.boundingRect(QRect(0, 0, inner - 20, 100000), Qt::TextWordWrap | Qt::TextWrapAnywhere,
                                    q(a_.question->text));
        question_ = QRect(kMargin, y + 2, inner, r.height() + 4);
        y += question_.height() + 6;
        if (!a_.question->options.empty()) flow(a_.question->options.size());
    }
    return y + kRowPad - 4;
}

void RowWidget::resizeEvent(QResizeEvent*) { place(width(), true); }

void RowWidget::mousePressEvent(QMouseEvent* e) { e->accept(); }

void RowWidget::mouseReleaseEvent(QMouseEvent* e) {
    e->accept();
    // A click on the row (not on one of its buttons, which take their own) jumps to the session.
    if (e->button() == Qt::LeftButton && rect().contains(e->position().toPoint())) front_.open(id_);
}

void RowWidget::paintEvent(QPaintEvent*) {
    const Palette& pal = front_.palette();
    const ViewModel& m = front_.model();
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    if (underMouse()) p.fillRect(rect(), pal.rowHover);
    p.setPen(pal.hairline);
    p.drawLine(kMargin, height() - 1, width() - kMargin, height() - 1);


    QColor status = statusColour(a_.status);
    bool loud = a_.status == AgentStatus::attention && !m.acknowledged.count(a_.id);
    bool small = compact();
    int y = kRowPad;

    // Line one: the status dot, project and branch, the age.
    QRectF dot(kMargin, y + kLine / 2.0 - 4.5, 9, 9);
    if (small) {
        p.setPen(QPen(status, 1.5));
        p.setBrush(Qt::NoBrush);
    } else {
        if (loud) {
            p.setPen(Qt::NoPen);
            p.setBrush(QColor(status.red(), status.green(), status.blue(), 70));
            p.drawEllipse(dot.adjusted(-3, -3, 3, 3));
        }
        p.setPen(Qt::NoPen);
        p.setBrush(status);
    }
    p.drawEllipse(dot);

    QString age = QString::fromStdString(ViewRenderer::ageText(a_.lastActivity, m.now));
    p.setFont(bodyFont(12));
    QFontMetrics fm12(bodyFont(12));
    int ageW = fm12.horizontalAdvance(age) + 2;
    p.setPen(pal.muted);
    p.drawText(QRect(width() - kMargin - ageW, y, ageW, kLine), Qt::AlignRight | Qt::AlignVCenter, age);

    int x = kMargin + 18;
    int room = width() - kMargin - ageW - 10 - x;
    QString project = q(a_.projectName.empty() ? a_.cwd : a_.projectName);
    QString branch = branchText(a_);
    QFont bold = bodyFont(13, !small);
    QFontMetrics fmb(bold);
    QString tail = small ? aboutText(a_) : QString();
    int projectRoom = branch.isEmpty() ? room : std::max(room * 3 / 5, room - fm12.horizontalAdvance(" · " + branch));
    QString shownProject = fmb.elidedText(project, Qt::ElideMiddle, projectRoom);
    p.setFont(bold);
    p.setPen(small ? pal.muted : pal.text);
    p.drawText(QRect(x, y, projectRoom, kLine), Qt::AlignLeft | Qt::AlignVCenter, shownProject);
    x += fmb.horizontalAdvance(shownProject);
    p.setFont(bodyFont(12));
    p.setPen(pal.muted);
    QString rest = branch.isEmpty() ? QString() : " · " + branch;
    if (small) {
        rest += "  ·  " + QString::fromStdString(std::string(scrivet::shortName(a_.provider)));
        if (!tail.isEmpty()) rest += "  ·  " + tail;
    }
    p.drawText(QRect(x, y, std::max(0, room - (x - kMargin - 18)), kLine), Qt::AlignLeft | Qt::AlignVCenter,
               fm12.elidedText(rest, Qt::ElideRight, std::max(0, kMargin + 18 + room - x)));
    if (small) return;
    y += kLine;

    // Line two: status, agent, model, the context gauge.
    x = kMargin + 18;
    auto put = [&](const QString& text, const QColor& c, bool isBold = false) {
        QFont f = bodyFont(12, isBold);
        p.setFont(f);
        p.setPen(c);
        QString t = QFontMetrics(f).elidedText(text, Qt::ElideRight, std::max(0, width() - kMargin - x));
        p.drawText(QRect(x, y, width() - kMargin - x, kLine), Qt::AlignLeft | Qt::AlignVCenter, t);
        x += QFontMetrics(f).horizontalAdvance(t);
    };
    put(QString::fromStdString(std::string(label(a_.status))), status, loud);
    put("  ·  ", pal.muted);
    put(QString::fromStdString(std::string(scrivet::shortName(a_.provider))), providerColour(a_.provider).lighter(pal.lightPanel ? 80 : 125));
    if (a_.model && !a_.model->empty()) {
        put("  ·  ", pal.muted);
        put(fm12.elidedText(q(*a_.model), Qt::ElideRight, 150), pal.text);
    }
    if (auto ctx = a_.contextLabel()) {
        put("  ·  ", pal.muted);
        if (auto fraction = a_.contextFraction()) {
            QColor gauge = *fraction >= 0.9 ? QColor(237, 41, 41) : *fraction >= 0.7 ? statusColour(AgentStatus::waiting)
                                                                                : statusColour(AgentStatus::working);
            QRectF track(x, y + kLine / 2.0 - 2.5, 44, 5);
            if (track.right() < width() - kMargin - 30) {
                p.setPen(Qt::NoPen);
                p.setBrush(pal.hairline);
                p.drawRoundedRect(track, 2.5, 2.5);
                p.setBrush(gauge);
                p.drawRoundedRect(QRectF(track.x(), track.y(), std::clamp(*fraction, 0.04, 1.0) * track.width(), 5), 2.5, 2.5);
                x += 50;
            }
        }
        std::string count = ctx->substr(0, ctx->size() - std::string(" ctx").size());
        if (a_.contextMaxEstimated) count += "~";
        put(QString::fromStdString(count), pal.muted);
    }
    y += kLine;

    // Line three: what it is about, and its subagents.
    QString about = aboutText(a_);
    if (!about.isEmpty() || a_.subagentCount > 0) {
        x = kMargin + 18;
        QString sub = a_.subagentCount > 0
                          ? QString::number(a_.subagentCount) + (a_.subagentCount == 1 ? " subagent" : " subagents")
                          : QString();
        int subW = sub.isEmpty() ? 0 : fm12.horizontalAdvance(sub) + 12;
        if (m.unseen.count(a_.id)) put("✓ Done · ", statusColour(AgentStatus::working), true);
        p.setFont(bodyFont(12));
        p.setPen(pal.text);
        int w = std::max(0, width() - kMargin - subW - x);
        p.drawText(QRect(x, y, w, kLine), Qt::AlignLeft | Qt::AlignVCenter, fm12.elidedText(about, Qt::ElideRight, w));
        if (!sub.isEmpty()) {
            p.setPen(pal.muted);
            p.drawText(QRect(width() - kMargin - subW, y, subW, kLine), Qt::AlignRight | Qt::AlignVCenter, sub);
        }
        y += kLine;
    }

    // Line four: the task plan, its progress and the step under way.
    if (const TaskPlan* plan = this->plan()) {
        x = kMargin + 18;
        QColor hue = plan->hasActive() ? statusColour(AgentStatus::working) : pal.muted;
        put("☰ " + QString::fromStdString(plan->badge()), hue, plan->hasActive());
        QRectF track(x + 8, y + kLine / 2.0 - 2, 48, 4);
        p.setPen(Qt::NoPen);
        p.setBrush(pal.hairline);
        p.drawRoundedRect(track, 2, 2);
        if (plan->doneCount() > 0) {
            p.setBrush(hue);
            double part = double(plan->doneCount()) / std::max(1, plan->totalCount());
            p.drawRoundedRect(QRectF(track.x(), track.y(), std::max(4.0, part * track.width()), track.height()), 2, 2);
        }
        x = int(track.right()) + 10;
        put(planStep(*plan), plan->hasActive() ? pal.text : pal.muted);
    }

    if (!command_.isNull()) {
        QColor boxFill = pal.lightPanel ? QColor(0, 0, 0, 16) : QColor(255, 255, 255, 16);
        p.setPen(QPen(QColor(status.red(), status.green(), status.blue(), 120), 1));
        p.setBrush(boxFill);
        p.drawRoundedRect(QRectF(command_).adjusted(0.5, 0.5, -0.5, -0.5), 7, 7);
        QRect text = command_.adjusted(10, 6, -10, -6);
        if (a_.approval->escalated) {
            p.setFont(bodyFont(11, true));
            QRect badge(text.x(), text.y(), QFontMetrics(bodyFont(11, true)).horizontalAdvance("Outside sandbox") + 12, kLine - 3);
            p.setPen(Qt::NoPen);
            p.setBrush(statusColour(AgentStatus::attention));
            p.drawRoundedRect(badge, 4, 4);
            p.setPen(Qt::white);
            p.drawText(badge, Qt::AlignCenter, "Outside sandbox");
            text.setTop(text.top() + kLine);
        }
        std::string cmd = a_.approval->toolName.empty() ? "Tool" : sanitize(a_.approval->toolName);
        if (a_.approval->detail) cmd += ": " + sanitize(*a_.approval->detail);
        p.setFont(monoFont());
        p.setPen(pal.text);
        p.drawText(text, kWrapAnywhere, QString::fromStdString(cmd));
    }
    if (!reason_.isNull()) {
        p.setFont(bodyFont(12));
        p.setPen(pal.muted);
        p.drawText(reason_, Qt::TextWordWrap | Qt::TextWrapAnywhere, q(*a_.approval->reason));
    }
    if (!confirm_.isNull()) {
        p.setFont(bodyFont(12, true));
        p.setPen(statusColour(AgentStatus::working));
        p.drawText(confirm_, Qt::AlignLeft | Qt::AlignVCenter, "✓ " + QString::fromStdString(*front_.confirmation(id_)));
    }
    if (!question_.isNull()) {
        p.setFont(bodyFont(12, true));
        p.setPen(statusColour(AgentStatus::waiting));
        p.drawText(question_.adjusted(0, 2, 0, 0), Qt::AlignLeft | Qt::AlignTop, "?");
        p.setPen(pal.text);
        p.drawText(question_.adjusted(16, 2, 0, 0), Qt::TextWordWrap | Qt::TextWrapAnywhere, q(a_.question->text));
    }
}

}  // namespace lumora::ui::desktop
