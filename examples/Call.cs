// Calls a method of the server with nothing but .NET's own libraries, and prints the answer.
//
//   mcs -r:System.Net.Http -r:System.Xml Call.cs
//   mono Call.exe HOST PORT METHOD PACKET [USER:PASSWORD]      PACKET: a file with the arguments, "-" for
//                                                              standard input
//
// Prints the HTTP status and the body. The exit status tells what came of the call:
//   0  the device did it: status 200, code 0         3  there was no whole answer
//   1  the device did not: status 200, another code  4  the call was not made: wrong arguments
//   2  the server refused it: another status
//
// The password is an argument, which other users of this machine can see while the program runs.

using System;
using System.IO;
using System.Net.Http;
using System.Net.Http.Headers;
using System.Text;
using System.Text.RegularExpressions;
using System.Threading.Tasks;
using System.Xml;

static class Call
{
    const int Done = 0, NotDone = 1, Refused = 2, NoAnswer = 3, NotCalled = 4;

    const int PacketMax = 65536; // bytes of a request's body
    const int LineMax = 511; // characters of a header line
    const int PatienceS = 60; // for the whole call: a device may take its time over some methods

    // A call that came to nothing: the exit status and why.
    sealed class Failure : Exception
    {
        public readonly int Status;

        public Failure(int status, string message) : base(message)
        {
            Status = status;
        }
    }

    sealed class Answer
    {
        public int Status;
        public string Reason;
        public byte[] Body;
    }

    static byte[] ReadPacket(string path)
    {
        var packet = new MemoryStream();
        try
        {
            using (var file = path == "-" ? Console.OpenStandardInput() : File.OpenRead(path)) file.CopyTo(packet);
        }
        catch (Exception error) when (error is IOException || error is UnauthorizedAccessException)
        {
            throw new Failure(NotCalled, path + ": " + error.Message);
        }
        byte[] bytes = packet.ToArray();
        if (bytes.Length == 0) throw new Failure(NotCalled, path + ": there is no packet in it");
        if (bytes.Length > PacketMax) throw new Failure(NotCalled, path + ": a packet has " + PacketMax + " bytes at most");
        if (Array.IndexOf(bytes, (byte)0) >= 0) throw new Failure(NotCalled, path + ": there is a NUL in it");
        return bytes;
    }

    static AuthenticationHeaderValue Authorization(string credentials)
    {
        if (!credentials.Contains(":")) throw new Failure(NotCalled, "give the user as USER:PASSWORD");
        string encoded = Convert.ToBase64String(Encoding.UTF8.GetBytes(credentials));
        if ("Authorization: Basic ".Length + encoded.Length > LineMax)
        {
            throw new Failure(NotCalled, "user and password are too long");
        }
        return new AuthenticationHeaderValue("Basic", encoded);
    }

    static HttpRequestMessage MakeRequest(string url, byte[] packet, string credentials)
    {
        var request = new HttpRequestMessage(HttpMethod.Post, url) { Content = new ByteArrayContent(packet) };
        request.Content.Headers.ContentType = new MediaTypeHeaderValue("text/xml");
        request.Headers.ConnectionClose = true;
        request.Headers.ExpectContinue = false; // the server never says "100 Continue"
        if (credentials != null) request.Headers.Authorization = Authorization(credentials);
        return request;
    }

    static async Task<Answer> Send(HttpRequestMessage request)
    {
        using (var handler = new HttpClientHandler { UseProxy = false, AllowAutoRedirect = false })
        using (var client = new HttpClient(handler) { Timeout = TimeSpan.FromSeconds(PatienceS) })
        using (var answer = await client.SendAsync(request))
        {
            byte[] body = await answer.Content.ReadAsByteArrayAsync();
            if (answer.Content.Headers.ContentLength != body.Length) throw new Failure(NoAnswer, "the answer is broken off");
            return new Answer { Status = (int)answer.StatusCode, Reason = answer.ReasonPhrase, Body = body };
        }
    }

    static Answer Make(HttpRequestMessage request)
    {
        try
        {
            return Send(request).GetAwaiter().GetResult();
        }
        catch (TaskCanceledException)
        {
            throw new Failure(NoAnswer, "no answer within " + PatienceS + " s: all threads of the server may be busy");
        }
        catch (Exception error) when (error is HttpRequestException || error is IOException)
        {
            Exception cause = error.InnerException ?? error;
            throw new Failure(NoAnswer, request.RequestUri.Authority + ": " + cause.Message + ". Is the server running?");
        }
    }

    // The number in "code" of the packet's "Status", which one method calls "status".
    static int FindCode(byte[] body)
    {
        const string path = "/wddxPacket/data/struct/var[@name='Status' or @name='status']/struct/var[@name='code']/number";
        // The packet names a document type that nobody can fetch.
        var settings = new XmlReaderSettings { DtdProcessing = DtdProcessing.Ignore, XmlResolver = null };
        var packet = new XmlDocument { XmlResolver = null };
        try
        {
            using (var reader = XmlReader.Create(new MemoryStream(body), settings)) packet.Load(reader);
        }
        catch (XmlException error)
        {
            throw new Failure(NoAnswer, "the answer has no code: " + error.Message);
        }
        int code = 0;
        XmlNode number = packet.SelectSingleNode(path);
        if (number == null || !int.TryParse(number.InnerText, out code)) throw new Failure(NoAnswer, "the answer has no code");
        return code;
    }

    // Makes the call and prints the answer; what it means as an exit status.
    static int Run(string[] arguments)
    {
        if (arguments.Length < 4 || arguments.Length > 5)
        {
            throw new Failure(NotCalled, "use: Call.exe HOST PORT METHOD PACKET [USER:PASSWORD]");
        }
        string method = arguments[2];
        if (!Regex.IsMatch(method, @"^[A-Za-z0-9]{1,32}\z"))
        {
            throw new Failure(NotCalled, "'" + method + "' is no method's name: give 1 to 32 letters");
        }
        ushort port = 0;
        if (!ushort.TryParse(arguments[1], out port) || port == 0)
        {
            throw new Failure(NotCalled, "'" + arguments[1] + "' is no port: give a number from 1 to 65535");
        }
        byte[] packet = ReadPacket(arguments[3]);
        string url = "http://" + arguments[0] + ":" + port + "/rDx?FunctionName=" + method;
        Answer answer = Make(MakeRequest(url, packet, arguments.Length > 4 ? arguments[4] : null));
        using (Stream output = Console.OpenStandardOutput())
        {
            byte[] status = Encoding.UTF8.GetBytes(answer.Status + " " + answer.Reason + "\n");
            output.Write(status, 0, status.Length);
            output.Write(answer.Body, 0, answer.Body.Length);
            output.WriteByte((byte)'\n');
        }
        if (answer.Status != 200) return Refused;
        return FindCode(answer.Body) == 0 ? Done : NotDone;
    }

    static int Main(string[] arguments)
    {
        // Otherwise a program that is traced would send a header "traceparent", which the server does not know.
        AppContext.SetSwitch("System.Net.Http.EnableActivityPropagation", false);
        try
        {
            return Run(arguments);
        }
        catch (Failure failure)
        {
            Console.Error.WriteLine("Call: " + failure.Message);
            return failure.Status;
        }
    }
}
