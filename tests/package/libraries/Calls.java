// Calls with Java's libraries: a line for each, "NAME | STATUSES".
//
//   java Calls PORT PACKET [PORT_OF_A_SERVER_THAT_BREAKS_OFF]

import java.io.ByteArrayInputStream;
import java.io.IOException;
import java.net.HttpURLConnection;
import java.net.Proxy;
import java.net.URI;
import java.net.http.HttpClient;
import java.net.http.HttpRequest;
import java.net.http.HttpRequest.BodyPublisher;
import java.net.http.HttpRequest.BodyPublishers;
import java.net.http.HttpResponse;
import java.net.http.HttpTimeoutException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import javax.xml.parsers.DocumentBuilderFactory;
import javax.xml.stream.XMLInputFactory;

public final class Calls {
    private static final Duration PATIENCE = Duration.ofSeconds(20);
    private static final Duration GLANCE = Duration.ofMillis(700); // for what never comes
    private static String server;
    private static byte[] packet;

    private static HttpClient plain() {
        return HttpClient.newBuilder().version(HttpClient.Version.HTTP_1_1).build();
    }

    private static HttpRequest.Builder request(String method, Duration patience) {
        return HttpRequest.newBuilder(URI.create(server + "/rDx?FunctionName=" + method)).timeout(patience);
    }

    private static String send(HttpClient client, HttpRequest request) throws Exception {
        try {
            return "" + client.send(request, HttpResponse.BodyHandlers.ofByteArray()).statusCode();
        } catch (HttpTimeoutException error) {
            return "waits";
        }
    }

    private static String post(HttpClient client, BodyPublisher body) throws Exception {
        return send(client, request("rdxGetVersion", PATIENCE).POST(body).build());
    }

    // A good call, one that is refused, two good ones.
    private static String clientInTurn() throws Exception {
        StringBuilder statuses = new StringBuilder();
        for (int i = 0; i < 4; ++i) {
            HttpRequest.Builder builder = request("rdxGetVersion", PATIENCE);
            if (i == 1) builder.header("X-Unknown", "1");
            statuses.append(' ').append(send(plain(), builder.POST(BodyPublishers.ofByteArray(packet)).build()));
        }
        return statuses.toString().trim();
    }

    private static HttpURLConnection open(String url) throws IOException {
        HttpURLConnection connection = (HttpURLConnection) URI.create(url).toURL().openConnection(Proxy.NO_PROXY);
        connection.setReadTimeout((int) PATIENCE.toMillis());
        connection.setDoOutput(true);
        return connection;
    }

    private static String connectionInTurn() throws IOException {
        StringBuilder statuses = new StringBuilder();
        for (int i = 0; i < 4; ++i) {
            HttpURLConnection connection = open(server + "/rDx?FunctionName=rdxGetVersion");
            if (i == 1) connection.setRequestProperty("X-Unknown", "1");
            connection.getOutputStream().write(packet);
            statuses.append(' ').append(connection.getResponseCode());
            connection.disconnect();
        }
        return statuses.toString().trim();
    }

    private static void breakOff(String port) {
        try {
            HttpURLConnection connection = open("http://127.0.0.1:" + port + "/");
            connection.getOutputStream().write(packet);
            connection.getResponseCode();
        } catch (IOException expected) {
            // What counts is how often the server was called.
        }
    }

    private static String read(boolean external) throws Exception {
        DocumentBuilderFactory factory = DocumentBuilderFactory.newInstance();
        factory.setFeature("http://apache.org/xml/features/nonvalidating/load-external-dtd", external);
        try {
            return factory.newDocumentBuilder().parse(answer()).getDocumentElement().getTagName();
        } catch (IOException error) {
            return error.getClass().getSimpleName();
        }
    }

    private static String readAsStream() throws Exception {
        XMLInputFactory factory = XMLInputFactory.newInstance();
        factory.setProperty(XMLInputFactory.SUPPORT_DTD, false);
        var reader = factory.createXMLStreamReader(answer());
        while (!reader.isStartElement()) reader.next();
        return reader.getLocalName();
    }

    private static ByteArrayInputStream answer() throws Exception {
        HttpRequest request = request("rdxGetVersion", PATIENCE).POST(BodyPublishers.ofByteArray(packet)).build();
        return new ByteArrayInputStream(plain().send(request, HttpResponse.BodyHandlers.ofByteArray()).body());
    }

    private static void tell(String name, String result) {
        System.out.println(name + " | " + result);
    }

    public static void main(String[] arguments) throws Exception {
        server = "http://127.0.0.1:" + arguments[0];
        packet = Files.readAllBytes(Path.of(arguments[1]));
        if (arguments.length > 2) {
            breakOff(arguments[2]);
            System.exit(0);
        }
        BodyPublisher body = BodyPublishers.ofByteArray(packet);
        tell("HttpClient, as it is", post(HttpClient.newHttpClient(), body));
        tell("HttpClient, each", clientInTurn());
        tell("HttpClient, no body", send(plain(),
            request("rdxGetDeviceStatus", PATIENCE).POST(BodyPublishers.noBody()).build()));
        tell("HttpClient, stream",
            post(plain(), BodyPublishers.ofInputStream(() -> new ByteArrayInputStream(packet))));
        tell("HttpURLConnection", connectionInTurn());
        tell("DocumentBuilder, as it is", read(true));
        tell("DocumentBuilder", read(false));
        tell("StAX", readAsStream());
        tell("HttpClient, expect",
            send(plain(), request("rdxGetVersion", GLANCE).expectContinue(true).POST(body).build()));
        System.exit(0);
    }
}
