// The enrollee's command words, run on the main thread.
#pragma once

// "apclone_24G..." or "apclone_5G...": send the Search of that band's run.
// Any other text does nothing. Always 0.
int IEEE19051_CommandProcess(char* buf, int buflen);
