// Device emulators the user has set up, listed as launchable items: the
// device simulators of the "simctl" listing (where that tool exists) and the
// Android emulator's virtual devices (AVDs). A missing tool or folder gives
// none; the listing command is ended after 5 seconds.
#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

namespace quorvi {

struct EmulatorDevice {
  std::string name;        // shown to the user
  std::string path;        // the device's folder
  std::string identifier;  // the simulator's udid, or the AVD's name
  std::string runtime;     // readable runtime ("iOS 17.0") or target ("android-34"); may be empty
};

// Identifiers every simulator / virtual device entry carries as its bundle
// identifier: the application that runs them.
inline constexpr const char* kSimulatorApplicationIdentifier = "com.apple.iphonesimulator";
inline constexpr const char* kAndroidEmulatorIdentifier = "com.android.emulator";

// The devices of "simctl list -j devices available" output: each device of
// the "devices" map (keyed by runtime identifier) with a name and a
// "dataPath"; its path is the folder above dataPath. Output that is not such
// JSON gives none.
std::vector<EmulatorDevice> parseSimulatorList(std::string_view json);
// "com.apple.CoreSimulator.SimRuntime.iOS-17-0" -> "iOS 17.0"; an identifier
// without that prefix is kept as it is.
std::string readableRuntimeName(std::string_view runtimeIdentifier);
// Runs the listing through /bin/sh when its first word is found in one of the
// folders; none otherwise, or when it fails or outlives the watchdog.
std::vector<EmulatorDevice> listSimulators(const std::string& command, const std::vector<std::string>& searchPath,
                                           std::chrono::milliseconds watchdog = std::chrono::seconds(5));

// Virtual devices of the folders: each NAME.ini names its device folder
// (path=, else path.rel= from the folder's parent, else NAME.avd beside it);
// the name shown is the device's avd.ini.displayname, else NAME with "_"
// read as blanks. A device folder that does not exist is left out.
std::vector<EmulatorDevice> listAndroidVirtualDevices(const std::vector<std::string>& folders);

}  // namespace quorvi
