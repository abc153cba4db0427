// The receive task "msgProcess": the daemon's only reader of the br0 packet
// socket and the only thread that runs message handlers.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>

extern std::atomic<int> msgThreadIsRunning;

// Opens the receive socket on br0 and starts the task.
void IEEE19051_MsgProcessStart();
// Stops and joins the task (within one 1 s read time-out), then closes the socket.
void IEEE19051_MsgProcessEnd();
// The type filter: AP-autoconfiguration messages (types 7 to 10) go to the
// role's handlers, everything else is dropped.
void handle_msg(u_int8_t* msg, int msglen);
