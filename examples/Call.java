// Calls a method of the server with nothing but Java's standard library, and prints the answer.
//
//   java Call.java HOST PORT METHOD PACKET [USER:PASSWORD]      PACKET: a file with the arguments, "-" for
//                                                               standard input
//
// Prints the HTTP status and the body. The exit status tells what came of the call:
//   0  the device did it: status 200, code 0         3  there was no whole answer
//   1  the device did not: status 200, another code  4  the call was not made: wrong arguments
//   2  the server refused it: another status
//
// The password is an argument, which other users of this machine can see while the program runs.

import java.io.ByteArrayInputStream;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.net.HttpURLConnection;
import java.net.Proxy;
import java.net.SocketTimeoutException;
import java.net.URL;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.NoSuchFileException;
import java.nio.file.Path;
import java.util.Base64;
import javax.xml.parsers.DocumentBuilderFactory;
import javax.xml.xpath.XPathFactory;

public final class Call {
    private static final int DONE = 0;
    private static final int NOT_DONE = 1;
    private static final int REFUSED = 2;
    private static final int NO_ANSWER = 3;
    private static final int NOT_CALLED = 4;

    private static final int PACKET_MAX = 65536; // bytes of a request's body
    private static final int LINE_MAX = 511; // characters of a header line
    private static final int CONNECT_PATIENCE_MS = 5000;
    // Without a byte from the server: a device may take its time over some methods.
    private static final int PATIENCE_MS = 60000;

    // A call that came to nothing: the exit status and why.
    private static final class Failure extends Exception {
        private static final long serialVersionUID = 1;
        final int status;

        Failure(int status, String message) {
            super(message);
            this.status = status;
        }
    }

    private record Answer(int status, String reason, byte[] body) {}

    private static byte[] readPacket(String path) throws Failure {
        byte[] packet;
        try (InputStream in = path.equals("-") ? System.in : Files.newInputStream(Path.of(path))) {
            packet = in.readNBytes(PACKET_MAX + 1);
        } catch (NoSuchFileException error) {
            throw new Failure(NOT_CALLED, path + ": there is no such file");
        } catch (IOException error) {
            throw new Failure(NOT_CALLED, path + ": " + error);
        }
        if (packet.length == 0) throw new Failure(NOT_CALLED, path + ": there is no packet in it");
        if (packet.length > PACKET_MAX) {
            throw new Failure(NOT_CALLED, path + ": a packet has " + PACKET_MAX + " bytes at most");
        }
        for (byte one : packet) {
            if (one == 0) throw new Failure(NOT_CALLED, path + ": there is a NUL in it");
        }
        return packet;
    }

    private static String authorization(String credentials) throws Failure {
        if (!credentials.contains(":")) throw new Failure(NOT_CALLED, "give the user as USER:PASSWORD");
        byte[] bytes = credentials.getBytes(StandardCharsets.UTF_8);
        String value = "Basic " + Base64.getEncoder().encodeToString(bytes);
        if ("Authorization: ".length() + value.length() > LINE_MAX) {
            throw new Failure(NOT_CALLED, "user and password are too long");
        }
        return value;
    }

    private static int readPort(String text) throws Failure {
        int port = text.matches("[0-9]{1,5}") ? Integer.parseInt(text) : 0;
        if (port < 1 || port > 65535) {
            throw new Failure(NOT_CALLED, "'" + text + "' is no port: give a number from 1 to 65535");
        }
        return port;
    }

    private static HttpURLConnection open(String host, int port, String method) throws IOException {
        URL url = new URL("http", host, port, "/rDx?FunctionName=" + method);
        HttpURLConnection connection = (HttpURLConnection) url.openConnection(Proxy.NO_PROXY);
        connection.setConnectTimeout(CONNECT_PATIENCE_MS);
        connection.setReadTimeout(PATIENCE_MS);
        connection.setInstanceFollowRedirects(false);
        connection.setDoOutput(true);
        connection.setRequestProperty("Content-Type", "text/xml");
        connection.setRequestProperty("Connection", "close");
        return connection;
    }

    // The body, as long as its header says: a setting makes the server send a text behind it.
    private static byte[] readBody(HttpURLConnection connection, int status) throws IOException, Failure {
        int length = connection.getContentLength();
        try (InputStream in = status < 400 ? connection.getInputStream() : connection.getErrorStream()) {
            byte[] body = in == null || length < 0 ? new byte[0] : in.readNBytes(length);
            if (body.length != length) throw new Failure(NO_ANSWER, "the answer is broken off");
            return body;
        }
    }

    private static Answer call(HttpURLConnection connection, byte[] packet) throws Failure {
        try {
            try (OutputStream out = connection.getOutputStream()) {
                out.write(packet);
            }
            int status = connection.getResponseCode();
            if (status < 0) throw new Failure(NO_ANSWER, "the answer is not HTTP");
            return new Answer(status, connection.getResponseMessage(), readBody(connection, status));
        } catch (SocketTimeoutException error) {
            throw new Failure(NO_ANSWER, "no answer in time: all threads of the server may be busy");
        } catch (IOException error) {
            throw new Failure(NO_ANSWER, connection.getURL().getAuthority() + ": " + error.getMessage()
                + ". Is the server running?");
        } finally {
            connection.disconnect();
        }
    }

    // The number in "code" of the packet's "Status", which one method calls "status".
    private static int findCode(byte[] body) throws Failure {
        String path = "/wddxPacket/data/struct/var[@name='Status' or @name='status']"
            + "/struct/var[@name='code']/number";
        try {
            DocumentBuilderFactory factory = DocumentBuilderFactory.newInstance();
            // The packet names a document type that nobody can fetch.
            factory.setFeature("http://apache.org/xml/features/nonvalidating/load-external-dtd", false);
            var builder = factory.newDocumentBuilder();
            builder.setErrorHandler(null); // it would print what the exception says
            var document = builder.parse(new ByteArrayInputStream(body));
            return Integer.parseInt(XPathFactory.newInstance().newXPath().evaluate(path, document));
        } catch (Exception error) {
            throw new Failure(NO_ANSWER, "the answer has no code: " + error);
        }
    }

    // Makes the call and prints the answer; what it means as an exit status.
    private static int run(String[] arguments) throws Failure, IOException {
        if (arguments.length < 4 || arguments.length > 5) {
            throw new Failure(NOT_CALLED, "use: java Call.java HOST PORT METHOD PACKET [USER:PASSWORD]");
        }
        String method = arguments[2];
        if (!method.matches("[A-Za-z0-9]{1,32}")) {
            throw new Failure(NOT_CALLED, "'" + method + "' is no method's name: give 1 to 32 letters");
        }
        HttpURLConnection connection = open(arguments[0], readPort(arguments[1]), method);
        byte[] packet = readPacket(arguments[3]);
        if (arguments.length == 5) {
            connection.setRequestProperty("Authorization", authorization(arguments[4]));
        }
        Answer answer = call(connection, packet);
        System.out.write((answer.status + " " + answer.reason + "\n").getBytes(StandardCharsets.ISO_8859_1));
        System.out.write(answer.body);
        System.out.write('\n');
        System.out.flush();
        if (answer.status != 200) return REFUSED;
        return findCode(answer.body) == 0 ? DONE : NOT_DONE;
    }

    public static void main(String[] arguments) throws IOException {
        // Otherwise a call whose connection breaks off would be made a second time.
        System.setProperty("sun.net.http.retryPost", "false");
        int status;
        try {
            status = run(arguments);
        } catch (Failure failure) {
            System.err.println("Call: " + failure.getMessage());
            status = failure.status;
        }
        System.exit(status);
    }
}
