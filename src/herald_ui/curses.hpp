#pragma once
// ncurses with its wide-character functions, without the macros that would rename `erase`,
// `clear`, `move` or `timeout` in every file that includes it.

#ifndef NCURSES_WIDECHAR
#define NCURSES_WIDECHAR 1
#endif
#define NCURSES_NOMACROS 1
#include <curses.h>
