#pragma once

// Whether the machine asks programs to save power (macOS: Low Power Mode;
// Linux: the "power-saver" / "low-power" platform profile). The monitor
// stretches its refresh interval while it is on.
//
// Linux offers no change notification short of power-profiles-daemon's D-Bus
// signal, so the monitor reads the state on every scan (two small files),
// off the main thread; a change reaches the cadence on the next tick.
namespace lumora::PowerState {

bool lowPowerMode();

}  // namespace lumora::PowerState
