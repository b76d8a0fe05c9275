#ifndef LODESTONE_BENCH_CPUCLOCK_H
#define LODESTONE_BENCH_CPUCLOCK_H

/// The CPU time that the calling thread has used, in ns.
double ownCpuNs();

/// The CPU time that the library's sender thread has used, in ns. Any thread may ask.
double senderCpuNs();

#endif
