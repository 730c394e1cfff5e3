// The whole group: its brokers, and what comes and goes.
#pragma once

/** Whether this process has a broker that others see. */
bool hasJoinedGroup();

/** Prints every broker with its actor, its ids and the traffic that it has counted since somebody
 * last asked. For who has joined the group, as the next. */
void printBrokers();

/** Prints every object of a known class that is there, is created or is deleted, in any process,
 * and every broker that comes up or goes away. Until it has printed `count` lines (0: any number)
 * or a signal comes. */
void follow(unsigned int count);
