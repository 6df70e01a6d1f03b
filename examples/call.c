/* Calls a method of the server with nothing but the system's sockets, and prints the answer.
 *
 *   cc examples/call.c -o call
 *   ./call HOST PORT METHOD PACKET [USER:PASSWORD]
 *
 * PACKET is a file with the arguments, "-" standard input. Prints the HTTP status and the body. The exit
 * status tells what came of the call:
 *   0  the device did it: status 200, code 0         3  there was no whole answer
 *   1  the device did not: status 200, another code  4  the call was not made: wrong arguments
 *   2  the server refused it: another status
 *
 * The password is an argument, which other users of this machine can see while the program runs. */
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

enum { DONE, NOT_DONE, REFUSED, NO_ANSWER, NOT_CALLED };

enum {
    PACKET_MAX = 65536,         /* bytes of a request's body */
    METHOD_MAX = 32,            /* characters of a method's name */
    LINE_MAX_LENGTH = 511,      /* characters of a header line */
    ANSWER_MAX = 132096,        /* bytes of an answer, its headers included */
    CONNECT_PATIENCE_MS = 5000, /* for each address of the host */
    ANSWER_PATIENCE_MS = 60000  /* for the whole call: a device may take its time over some methods */
};

#if defined(__GNUC__)
__attribute__((noreturn, format(printf, 2, 3)))
#endif
static void
fail(int status, const char* format, ...) {
    va_list arguments;
    fflush(stdout);
    fputs("call: ", stderr);
    va_start(arguments, format);
    vfprintf(stderr, format, arguments);
    va_end(arguments);
    fputc('\n', stderr);
    exit(status);
}

/* Bytes of known length. */
typedef struct {
    char* bytes;
    size_t length;
} Text;

static char* allocate(size_t size) {
    char* const bytes = malloc(size);
    if (bytes == NULL) fail(NO_ANSWER, "no memory");
    return bytes;
}

/* Reads a file of 1 to PACKET_MAX bytes without a NUL. */
static Text read_packet(const char* path) {
    Text packet = {allocate(PACKET_MAX + 1), 0};
    FILE* const file = strcmp(path, "-") == 0 ? stdin : fopen(path, "rb");
    if (file == NULL) fail(NOT_CALLED, "%s: %s", path, strerror(errno));
    packet.length = fread(packet.bytes, 1, PACKET_MAX + 1, file);
    if (ferror(file)) fail(NOT_CALLED, "%s: %s", path, strerror(errno));
    if (file != stdin) fclose(file);
    if (packet.length == 0) fail(NOT_CALLED, "%s: there is no packet in it", path);
    if (packet.length > PACKET_MAX) fail(NOT_CALLED, "%s: a packet has %d bytes at most", path, PACKET_MAX);
    if (memchr(packet.bytes, '\0', packet.length) != NULL) fail(NOT_CALLED, "%s: there is a NUL in it", path);
    return packet;
}

/* What stands in a request line has no blanks, and nothing that ends the line. */
static void check_method(const char* method) {
    const size_t length = strspn(method, "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789");
    if (length == 0 || length > METHOD_MAX || method[length] != '\0') {
        fail(NOT_CALLED, "'%s' is no method's name: give 1 to %d letters", method, METHOD_MAX);
    }
}

static char* base64(const char* text) {
    static const char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const unsigned char* in = (const unsigned char*)text;
    size_t left = strlen(text);
    char* const encoded = allocate((left + 2) / 3 * 4 + 1);
    char* out = encoded;
    while (left > 0) {
        const size_t taken = left < 3 ? left : 3;
        const unsigned group = (unsigned)in[0] << 16 | (taken > 1 ? (unsigned)in[1] << 8 : 0u) |
                               (taken > 2 ? (unsigned)in[2] : 0u);
        *out++ = digits[group >> 18];
        *out++ = digits[group >> 12 & 63];
        *out++ = taken > 1 ? digits[group >> 6 & 63] : '=';
        *out++ = taken > 2 ? digits[group & 63] : '=';
        in += taken;
        left -= taken;
    }
    *out = '\0';
    return encoded;
}

/* The header line with the credentials, empty without any. */
static char* authorization(const char* credentials) {
    char* line;
    char* encoded;
    size_t size;
    if (credentials == NULL) return strcpy(allocate(1), "");
    if (strchr(credentials, ':') == NULL) fail(NOT_CALLED, "give the user as USER:PASSWORD");
    encoded = base64(credentials);
    size = strlen(encoded) + sizeof "Authorization: Basic \r\n";
    if (size - sizeof "\r\n" > LINE_MAX_LENGTH) fail(NOT_CALLED, "user and password are too long");
    line = allocate(size);
    snprintf(line, size, "Authorization: Basic %s\r\n", encoded);
    free(encoded);
    return line;
}

static Text make_request(const char* host, const char* port, const char* method, Text packet,
                         const char* credentials) {
    static const char format[] = "POST /rDx?FunctionName=%s HTTP/1.1\r\n"
                                 "Host: %s:%s\r\n"
                                 "Content-Type: text/xml\r\n"
                                 "Content-Length: %zu\r\n"
                                 "Connection: close\r\n"
                                 "%s\r\n";
    char* const authorized = authorization(credentials);
    const int head = snprintf(NULL, 0, format, method, host, port, packet.length, authorized);
    Text request = {NULL, 0};
    request.bytes = allocate((size_t)head + 1 + packet.length);
    snprintf(request.bytes, (size_t)head + 1, format, method, host, port, packet.length, authorized);
    memcpy(request.bytes + head, packet.bytes, packet.length);
    request.length = (size_t)head + packet.length;
    free(authorized);
    return request;
}

static long long now_ms(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (long long)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

static void check_port(const char* port) {
    char* end = NULL;
    const long number = strtol(port, &end, 10);
    if (end == port || *end != '\0' || number < 1 || number > 65535) {
        fail(NOT_CALLED, "'%s' is no port: give a number from 1 to 65535", port);
    }
}

/* Waits until the socket is ready; 0 when it is not in time. */
static int wait_for(int connection, short events, long long deadline) {
    struct pollfd ready = {connection, events, 0};
    for (;;) {
        const long long left = deadline - now_ms();
        const int found = left > 0 ? poll(&ready, 1, (int)left) : 0;
        if (found >= 0 || errno != EINTR) return found > 0;
    }
}

/* A connection to one address, which does not block; -1 with errno when there is none. */
static int connect_to(const struct addrinfo* address) {
    int error = 0;
    socklen_t size = sizeof error;
    const int connection = socket(address->ai_family, address->ai_socktype, address->ai_protocol);
    if (connection < 0) return -1;
    if (fcntl(connection, F_SETFL, O_NONBLOCK) == 0) {
        if (connect(connection, address->ai_addr, address->ai_addrlen) == 0) return connection;
        error = errno;
        if (error == EINPROGRESS || error == EINTR) {
            error = ETIMEDOUT;
            if (wait_for(connection, POLLOUT, now_ms() + CONNECT_PATIENCE_MS)) {
                getsockopt(connection, SOL_SOCKET, SO_ERROR, &error, &size);
            }
        }
    } else {
        error = errno;
    }
    if (error == 0) return connection;
    close(connection);
    errno = error;
    return -1;
}

/* The first of the host's addresses that answers. The server has IPv4 alone, but a name may have both. */
static int connect_host(const char* host, const char* port) {
    struct addrinfo wanted;
    struct addrinfo* found = NULL;
    const struct addrinfo* address;
    int connection = -1;
    int result;
    memset(&wanted, 0, sizeof wanted);
    wanted.ai_family = AF_UNSPEC;
    wanted.ai_socktype = SOCK_STREAM;
    result = getaddrinfo(host, port, &wanted, &found);
    if (result != 0) fail(NO_ANSWER, "%s, port %s: %s", host, port, gai_strerror(result));
    for (address = found; address != NULL && connection < 0; address = address->ai_next) {
        connection = connect_to(address);
    }
    if (connection < 0) {
        fail(NO_ANSWER, "no connection to %s, port %s: %s. Is the server running?", host, port,
             strerror(errno));
    }
    freeaddrinfo(found);
    return connection;
}

/* A server that refuses a long request may close the connection before it has read all of it: its answer
   counts, if there is one. */
static void send_request(int connection, Text request, long long deadline) {
    size_t sent = 0;
    while (sent < request.length) {
        const ssize_t count = send(connection, request.bytes + sent, request.length - sent, MSG_NOSIGNAL);
        if (count >= 0) {
            sent += (size_t)count;
        } else if (errno == EPIPE || errno == ECONNRESET) {
            return;
        } else if (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK) {
            fail(NO_ANSWER, "the request could not be sent: %s", strerror(errno));
        } else if (!wait_for(connection, POLLOUT, deadline)) {
            fail(NO_ANSWER, "the server does not take the request: are all its threads busy?");
        }
    }
}

/* Where the value of a header begins, NULL when it is not among the headers. */
static const char* find_header(const char* headers, const char* name) {
    const char* line = headers;
    while ((line = strstr(line, "\r\n")) != NULL && strncmp(line, "\r\n\r\n", 4) != 0) {
        line += 2;
        if (strncasecmp(line, name, strlen(name)) == 0 && line[strlen(name)] == ':') {
            return line + strlen(name) + 1;
        }
    }
    return NULL;
}

/* The length of the answer that begins here: 0 as long as its headers are not complete. */
static size_t answer_length(const char* answer) {
    const char* const end = strstr(answer, "\r\n\r\n");
    const char* length;
    unsigned long body = 0;
    if (end == NULL) return 0;
    length = find_header(answer, "Content-Length");
    if (length != NULL) body = strtoul(length, NULL, 10);
    if (body > ANSWER_MAX) fail(NO_ANSWER, "an answer of %lu bytes is no answer of the server", body);
    return (size_t)(end + 4 - answer) + body;
}

/* Receives one whole answer, which a NUL follows. */
static Text receive_answer(int connection, long long deadline) {
    Text answer = {allocate(2 * ANSWER_MAX + 1), 0};
    size_t wanted = 0;
    for (;;) {
        ssize_t count;
        answer.bytes[answer.length] = '\0';
        if (wanted == 0) wanted = answer_length(answer.bytes);
        if (wanted != 0 && answer.length >= wanted) break;
        if (answer.length >= 2 * ANSWER_MAX) fail(NO_ANSWER, "the answer does not end");
        if (!wait_for(connection, POLLIN, deadline)) {
            fail(NO_ANSWER, "no answer within %d s: all threads of the server may be busy",
                 ANSWER_PATIENCE_MS / 1000);
        }
        count = recv(connection, answer.bytes + answer.length, 2 * ANSWER_MAX - answer.length, 0);
        if (count == 0) fail(NO_ANSWER, "the server closed the connection before the answer was complete");
        if (count > 0) {
            answer.length += (size_t)count;
        } else if (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK) {
            fail(NO_ANSWER, "the connection failed: %s", strerror(errno));
        }
    }
    answer.length = wanted; /* a setting makes the server send a text behind it */
    answer.bytes[wanted] = '\0';
    return answer;
}

/* The number in "code" of the packet's "Status", which one method calls "status". A text in the packet cannot
   look like this: its quotes are escaped. */
static int find_code(const char* packet, long* code) {
    static const char number[] = "<var name='code'><number>";
    const char* status = strstr(packet, "<var name='Status'>");
    if (status == NULL) status = strstr(packet, "<var name='status'>");
    if (status != NULL) status = strstr(status, number);
    if (status == NULL) return 0;
    *code = strtol(status + strlen(number), NULL, 10);
    return 1;
}

/* Prints the answer; what it means as an exit status. */
static int report(Text answer) {
    const char* const body = strstr(answer.bytes, "\r\n\r\n") + 4;
    const char* const status = answer.bytes + strlen("HTTP/1.1 ");
    long code = 0;
    if (strncmp(answer.bytes, "HTTP/1.", 7) != 0 || answer.length < 12) {
        fail(NO_ANSWER, "the answer is not HTTP");
    }
    printf("%.*s\n", (int)strcspn(status, "\r\n"), status);
    fwrite(body, 1, (size_t)(answer.bytes + answer.length - body), stdout);
    putchar('\n');
    if (fflush(stdout) != 0) fail(NO_ANSWER, "the answer could not be written: %s", strerror(errno));
    if (strtol(status, NULL, 10) != 200) return REFUSED;
    if (!find_code(body, &code)) fail(NO_ANSWER, "the answer has no code");
    return code == 0 ? DONE : NOT_DONE;
}

int main(int argc, char** argv) {
    const char* const credentials = argc > 5 ? argv[5] : NULL;
    long long deadline;
    Text packet;
    Text request;
    Text answer;
    int connection;
    int status;
    if (argc < 5 || argc > 6) {
        fprintf(stderr, "use: %s HOST PORT METHOD PACKET [USER:PASSWORD]\n", argv[0]);
        return NOT_CALLED;
    }
    check_port(argv[2]);
    check_method(argv[3]);
    packet = read_packet(argv[4]);
    request = make_request(argv[1], argv[2], argv[3], packet, credentials);
    connection = connect_host(argv[1], argv[2]);
    deadline = now_ms() + ANSWER_PATIENCE_MS;
    send_request(connection, request, deadline);
    answer = receive_answer(connection, deadline);
    close(connection);
    status = report(answer);
    free(packet.bytes);
    free(request.bytes);
    free(answer.bytes);
    return status;
}
