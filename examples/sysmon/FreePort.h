#ifndef LODESTONE_EXAMPLES_FREEPORT_H
#define LODESTONE_EXAMPLES_FREEPORT_H

namespace Sysmon
{

/// `wanted`, or a free port from 1000 on if that is 0. Throws std::runtime_error if the port is taken, which
/// the library wouldn't tell: it then ignores all frames. Nothing holds the port after the call, so it can
/// still be lost to another program.
int findPort(int wanted);

} // namespace Sysmon

#endif
