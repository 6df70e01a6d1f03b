// The results of rdxhttp_main in words.
#ifndef RDX_HOST_RESULTS_H
#define RDX_HOST_RESULTS_H

namespace rdx {

// The configuration file that the server reads with these arguments.
const char* ConfigurationPath(int argc, char** argv);

// Writes to standard error what `result` means and what to do next. `port` is the port as configured.
void ReportResult(int result, const char* configurationPath, const char* port);

} // namespace rdx

#endif
