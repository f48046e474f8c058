// What every program of the desk does before anything else.
#ifndef COMMON_PROCESS_H
#define COMMON_PROCESS_H

namespace sandbox {

/// Makes every file and socket of the process from here on its owner's alone, ignores the signals of a write
/// that fails, raises the limit of open descriptors as far as the system allows, and throws
/// std::runtime_error when the program could not open `descriptors` of them: the libraries below end the
/// process without a reason then. To be called by the only thread.
void prepare_process(int descriptors);

} // namespace sandbox

#endif
