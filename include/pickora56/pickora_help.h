// The program's own documentation: the usage text, the full help with every tip, and one
// tip after a finished run. Everything prints on standard output.
#pragma once

extern const char pickora_version[];
extern const char pickora_updated_date[];

// Eight tips and, last, an empty entry (so one closing tip in nine is blank).
constexpr int PICKORA_NTIPS = 9;
extern const char* const PICKORA_ALL_TIPS[PICKORA_NTIPS];

// The usage text; name is argv[0].
void pickora_help(char* name);
// The usage text, a rule, every entry of PICKORA_ALL_TIPS with one more line end, a rule.
void pickora_help_full(char* name);
// The usage text, then the end of the run with status 1 (pickora::FatalError). The message is for the reader
// of the calling code and is not printed.
[[noreturn]] void pickora_help_exit(char* name, const char* message);
// A rule, the tip picked by the clock's seconds, a rule.
void pickora_put_one_random_tip();
// The tip picked for a given time in seconds: srand(seconds), then rand() modulo 9.
int pickora_tip_index(long seconds);
