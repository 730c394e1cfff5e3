// Programs that go on until they are told to end.
#pragma once

/** To be called before the first thread is started: SIGINT and SIGTERM then wait until they are
 * asked for. */
void keepEndSignals();

/** Whether a signal to end has come, or comes within a short time. Gives the run permission up
 * meanwhile, so that observers are told. */
bool endSignalled();
