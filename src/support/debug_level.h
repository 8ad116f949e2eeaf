// The program's debug level: every layer traces by it, so it lives below them all.
#pragma once

// Set once at the start from "DEBUGquenby"; 0 traces nothing.
extern int quenby_debug;
