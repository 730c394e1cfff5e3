#pragma once

/**
 * A thread-local variable that is reached without a call. For a few words of plain data each: all
 * of them share the little that the loader keeps for libraries that a program opens while it runs.
 */
#define OSW_QUICK_THREAD_LOCAL __attribute__((tls_model("initial-exec"))) thread_local
