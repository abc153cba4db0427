// The entry module: the command word, the run mode it selects, and the
// order in which the daemon starts and stops.
//
//   kestrd apclone_24G     one enrollee run for 2.4 GHz, then exit
//   kestrd apclone_5G      the same for 5 GHz
//   kestrd apclone_deamon  registrar until killed (role must be registrar)
//
// The exit status is 0 in every case; the outcome of a run shows in the
// printed lines, the system log and the configuration database.
#pragma once

// Prints the usage text; 0.
int show_event_usage();
// Sets the run mode from the command word, or ends the process (status 0)
// with the usage text or the role error.
void param_parse(int argc, char** argv);
