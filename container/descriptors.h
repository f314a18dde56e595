// Descriptors of files that the library opens for itself.
#pragma once

namespace kel {

// Moves a descriptor that was opened in place of a closed standard stream (0 to 2) above them, and
// closes it there. Hosts may run without these streams: their messages would be written into a
// container, and a model be read as what a person types. Returns the descriptor that counts from
// then on, closed upon execution of another program; negative, with errno, where fd was negative
// or no other is to be had. Any thread.
int aboveStandardStreams(int fd);

}  // namespace kel
