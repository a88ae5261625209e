#pragma once

#include "lumora/app/settings_store.hpp"
#include "lumora/ui/desktop/desktop_view.hpp"

namespace lumora {

// The pill's look as the stored settings say.
ui::DesktopLook desktopLook(const SettingsStore& store);
// The desktop front end's options over the settings store: what it draws
// with, and the settings window's fields, each bound to its stored key.
ui::DesktopViewOptions desktopOptions(SettingsStore& store);

}  // namespace lumora
