#pragma once

/**
 * Runs a script of the platform through the system shell and waits for it; answers its status word,
 * as waitpid gives it (-1 when no process could be started).
 */
using ScriptRunner = int (*)(char const* path);

/** Runs `path` with the present runner. */
int runScript(char const* path);
/** Replaces the runner, for tests; null puts back the default. */
void setScriptRunner(ScriptRunner runner);
