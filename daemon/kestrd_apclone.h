// The receive task's dispatch: each AP-autoconfiguration message goes to the
// handler that the device's role and the message type select, and a
// Response goes to the pending request it answers.
#pragma once

#include <sys/types.h>

// -1 for a missing frame, else 0 whatever the handler did.
int IEEE19051_MsgApcloneProcess(int type, u_int8_t* msg, int msglen);
// Finds the pending request a Response answers, by message identifier
// alone, and runs that request's response handler on it.
int msgApcloneProcessResponse(int type, u_int8_t* buf, int recvlen);
