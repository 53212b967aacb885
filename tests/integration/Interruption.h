// What ends a program from outside.
#pragma once

#include <QProcess>

// Before the process is started: an interrupt of it then reaches nobody else.
void MakeInterruptible(QProcess& process);
// Ctrl-C. False when the system refuses.
bool SendInterrupt(const QProcess& process);
// The system's request to end, as far as it has one beside Ctrl-C. False when it refuses.
bool SendRequestToEnd(const QProcess& process);
