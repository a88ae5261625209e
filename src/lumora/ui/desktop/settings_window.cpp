#include <QCheckBox>
#include <QComboBox>
#include <QFormLayout>
#include <QLabel>
#include <QGuiApplication>
#include <QScreen>
#include <QVBoxLayout>

#include "lumora/ui/desktop/desktop_parts.hpp"

namespace lumora::ui::desktop {

SettingsWindow::SettingsWindow(Front& front) : front_(front) {
    setObjectName("settings");
    setWindowTitle("Lumora Settings");
    setWindowFlags(Qt::Window | Qt::WindowStaysOnTopHint | Qt::WindowCloseButtonHint);
    // The panel's own dark surface, so the two read as one product.
    setStyleSheet(
        "QWidget#settings{background:#1b1b20;} QLabel{color:#e6e6ea;font-size:12px;}"
        "QLabel#note{color:#8c8e96;}"
        "QCheckBox{color:#e6e6ea;font-size:12px;spacing:8px;}"
        "QCheckBox::indicator{width:16px;height:16px;border-radius:4px;border:1px solid #55575f;background:#26272d;}"
        "QCheckBox::indicator:checked{background:#2fb560;border-color:#2fb560;}"
        "QComboBox{color:#e6e6ea;background:#26272d;border:1px solid #3b3d45;border-radius:6px;padding:3px 8px;"
        "min-width:140px;font-size:12px;}"
        "QComboBox::drop-down{border:none;width:18px;}"
        "QComboBox QAbstractItemView{color:#e6e6ea;background:#26272d;selection-background-color:#3b3d45;}");
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(18, 16, 18, 16);
    auto* form = new QFormLayout;
    form->setLabelAlignment(Qt::AlignRight);
    form->setHorizontalSpacing(14);
    form->setVerticalSpacing(8);
    layout->addLayout(form);

    // Every field writes its key at once and the pill takes it up at once.
    for (const auto& field : front_.options().settingsFields) {
        QString name = QString::fromStdString("setting-" + field.key);
        if (field.choices.empty()) {
            auto* box = new QCheckBox(this);
            box->setObjectName(name);
            box->setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);  // its rectangle is what a click toggles
            form->addRow(QString::fromStdString(field.label), box);
            QObject::connect(box, &QCheckBox::toggled, [this, field](bool on) {
                if (field.get && field.get() == (on ? "true" : "false")) return;
                if (field.set) field.set(on ? "true" : "false");
                front_.settingsChanged();
            });
            syncs_.push_back([box, field] {
                QSignalBlocker block(box);
                box->setChecked(field.get && field.get() == "true");
            });
        } else {
            auto* combo = new QComboBox(this);
            combo->setObjectName(name);
            for (const auto& [raw, label] : field.choices)
                combo->addItem(QString::fromStdString(label), QString::fromStdString(raw));
            form->addRow(QString::fromStdString(field.label), combo);
            QObject::connect(combo, &QComboBox::activated, [this, combo, field](int) {
                std::string raw = combo->currentData().toString().toStdString();
                if (field.set) field.set(raw);
                front_.settingsChanged();
            });
            syncs_.push_back([combo, field] {
                QSignalBlocker block(combo);
                int at = combo->findData(QString::fromStdString(field.get ? field.get() : ""));
                combo->setCurrentIndex(std::max(0, at));
            });
        }
    }

    // Displays: one switch per connected screen.
    auto* displays = new QWidget(this);
    auto* displayLayout = new QVBoxLayout(displays);
    displayLayout->setContentsMargins(0, 0, 0, 0);
    form->addRow("Displays", displays);
    syncs_.push_back([this, displays, displayLayout] {
        while (auto* item = displayLayout->takeAt(0)) {
            delete item->widget();
            delete item;
        }
        auto connected = front_.connected();
        auto chosen = NotchDisplays::chosen(front_.look().displays, connected);
        for (const auto& d : connected) {
            auto* box = new QCheckBox(QString::fromStdString(NotchDisplays::label(d, connected)), displays);
            box->setObjectName(QString::fromStdString("display-" + d.key));
            bool on = std::any_of(chosen.begin(), chosen.end(), [&](const DisplayInfo& c) { return c.key == d.key; });
            box->setChecked(on);
            std::string key = d.key;
            QObject::connect(box, &QCheckBox::toggled, [this, key](bool enabled) {
                if (front_.options().setDisplay) front_.options().setDisplay(key, enabled, front_.connected());
                // Rebuilding the switches from inside one of their signals would delete the sender.
                QTimer::singleShot(0, [this] { front_.settingsChanged(); });
            });
            displayLayout->addWidget(box);
        }
    });
    auto* note = new QLabel("Changes take effect at once.", this);
    note->setObjectName("note");
    layout->addWidget(note);
    if (QScreen* s = QGuiApplication::primaryScreen()) {
        adjustSize();
        QRect a = s->availableGeometry();
        move(a.x() + (a.width() - width()) / 2, a.y() + a.height() / 4);
    }
}

void SettingsWindow::sync() {
    for (auto& s : syncs_) s();
}

}  // namespace lumora::ui::desktop
