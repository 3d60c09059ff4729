// The desktop's search hosts' objects, served on the service's own bus
// connection beside its protocol object:
//
//   /com/quorvi/quorvifind/krunner         org.kde.krunner1 (KRunner, Plasma 5)
//   /com/quorvi/quorvifind/SearchProvider  org.gnome.Shell.SearchProvider2
//
// Both answer from DesktopSearch and open through DesktopOpener (openings
// take turns on the serial queue "com.quorvi.desktop.open"). Threads as
// for the protocol object: the handlers run on the bus thread and never wait
// there; searches and metas run on the request pool and their replies are
// sent back on the bus thread; Run, ActivateResult and LaunchSearch answer at
// once and open afterwards. Only GNOME's subsearch of a
// complete previous set answers on the spot (it reads memory only).
#pragma once

#include <functional>
#include <string>

struct sd_bus;

namespace quorvi {

inline constexpr const char* kKRunnerObjectPath = "/com/quorvi/quorvifind/krunner";
inline constexpr const char* kKRunnerInterface = "org.kde.krunner1";
inline constexpr const char* kSearchProviderObjectPath = "/com/quorvi/quorvifind/SearchProvider";
inline constexpr const char* kSearchProviderInterface = "org.gnome.Shell.SearchProvider2";
// The desktop entry GNOME Shell's registration names; LaunchSearch starts it.
inline constexpr const char* kDesktopEntryId = "com.quorvi.quorvifind.desktop";

// Most results one KRunner Match or GNOME search returns.
inline constexpr std::size_t kKRunnerMatchLimit = 30;
inline constexpr std::size_t kSearchProviderLimit = 50;

// Runs work on the bus thread (the owner of `bus`).
using PerformOnBusThread = std::function<void(std::function<void()>)>;

// Exports both objects on the bus; call on the bus thread before the name is
// taken. False, with the reason, when sd-bus refuses.
bool exportDesktopObjects(sd_bus* bus, PerformOnBusThread perform, std::string* error);

}  // namespace quorvi
