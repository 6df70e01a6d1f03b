/* Shows a call of another server as an HTML page: request line, headers and arguments as they would be sent.
 */
#include "client/tnp.h"
#include "common/config.h"

#include <stdio.h>

int main(int argc, char** argv) {
    static char page[HTTP_SEND_BUFFER_SIZE];
    HttpRequest request;
    int result;
    if (argc != 4) {
        fprintf(stderr, "use: %s HOST FUNCTION ARGUMENTS >page.html\n", argv[0]);
        return 1;
    }
    snprintf(szAuthInfo, sizeof szAuthInfo,
             "Basic dXNlcjpwYXNz"); /* user:pass; nothing is sent without any */
    result = BuildTavrinRequest(&request, argv[1], argv[2], argv[3]);
    if (result == 0) result = SerializeHttpRequest(&request, page, sizeof page, 1);
    FreeHttpRequest(&request);
    if (result < 0) {
        fprintf(stderr, "no page: %d\n", result);
        return 1;
    }
    return fwrite(page, 1, (size_t)result, stdout) == (size_t)result ? 0 : 1;
}
