// The desktop side of `quorvi`:
//
//   quorvi doctor   what is installed, registered with the bus and the
//                   desktop's search hosts, and running
//   quorvi rofi     rofi's script mode (rofi -show quorvi -modi "quorvi:quorvi rofi"):
//                   the words typed (Enter) are searched as KRunner searches
//                   them; rofi narrows the rows as more is typed; the chosen
//                   row is opened by the service, as KRunner's Run opens it;
//                   rofi starting has the applications scanned
#pragma once

#include <string>
#include <vector>

namespace quorvi {

int doctorCommand(const std::string& address);
int rofiCommand(const std::string& address, const std::vector<std::string>& words);

}  // namespace quorvi
