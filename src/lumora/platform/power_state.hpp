#pragma once

// Whether the machine asks programs to save power (macOS: Low Power Mode;
// Linux: the "power-saver" / "low-power" platform profile). The monitor
// stretches its refresh interval while it is on.
namespace lumora::PowerState {

bool lowPowerMode();

}  // namespace lumora::PowerState
