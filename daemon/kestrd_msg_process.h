// The receive task "msgProcess": the daemon's only reader of the br0 packet
// socket and the only thread that runs message handlers.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>

#include "protocol/19051_frame.h"

extern std::atomic<int> msgThreadIsRunning;

// Opens the receive socket on br0 and starts the task.
void IEEE19051_MsgProcessStart();
// Stops the task, waking it from its wait for a frame, joins it once its
// current frame is done, then closes the socket.
void IEEE19051_MsgProcessEnd();
// The type filter: AP-autoconfiguration messages (types 7 to 10) go to the
// role's handlers, everything else is dropped.
void handle_msg(u_int8_t* msg, int msglen);

namespace kestr {

// The message types handle_msg passes on.
constexpr int kFirstHandledType = IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_SEARCH;
constexpr int kLastHandledType = IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_RENEW;

// Opens the receive socket on br0 (the first step of
// IEEE19051_MsgProcessStart), and has the kernel keep out CMDUs of the types
// handle_msg drops, so a link busy with other 1905.1 traffic costs the
// receive task nothing. Frames the read refuses with a line still reach it.
void open_receive_socket();

}  // namespace kestr
