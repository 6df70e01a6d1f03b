// Calls with .NET's libraries: a line for each, "NAME | STATUSES".
//
//   mono Calls.exe PORT PACKET

using System;
using System.Collections.Generic;
using System.IO;
using System.Net.Http;
using System.Text;
using System.Threading.Tasks;
using System.Xml;

static class Calls
{
    static string server;
    static byte[] packet;

    // Each call has a client of its own: one that is kept uses connections that the server has closed.
    static HttpClient Client()
    {
        return new HttpClient(new HttpClientHandler { UseProxy = false }) { Timeout = TimeSpan.FromSeconds(20) };
    }

    static async Task<HttpResponseMessage> Post(HttpContent body, string path, bool refused)
    {
        var request = new HttpRequestMessage(HttpMethod.Post, server + path) { Content = body };
        request.Headers.ConnectionClose = true;
        if (refused) request.Headers.Add("X-Unknown", "1");
        return await Client().SendAsync(request);
    }

    // What a refusal looks like depends on the library: it may take the reset behind it for a failure.
    static string Status(HttpContent body, string path = "/rDx?FunctionName=rdxGetVersion", bool refused = false)
    {
        try
        {
            using (var answer = Post(body, path, refused).GetAwaiter().GetResult()) return "" + (int)answer.StatusCode;
        }
        catch (HttpRequestException)
        {
            return "failed";
        }
    }

    // Good calls around one that is refused.
    static string InTurn()
    {
        var statuses = new List<string>();
        for (int i = 0; i < 4; ++i)
        {
            string status = Status(new ByteArrayContent(packet), refused: i == 1);
            if (i != 1) statuses.Add(status);
        }
        return string.Join(" ", statuses);
    }

    static HttpContent Form()
    {
        return new MultipartFormDataContent
        {
            { new StringContent("rdxGetVersion"), "FunctionName" },
            { new StringContent(Encoding.UTF8.GetString(packet)), "FunctionArgs" }
        };
    }

    static string Read(XmlReaderSettings settings)
    {
        using (var answer = Post(new ByteArrayContent(packet), "/rDx?FunctionName=rdxGetVersion", false).GetAwaiter().GetResult())
        {
            try
            {
                using (var reader = XmlReader.Create(answer.Content.ReadAsStreamAsync().Result, settings))
                {
                    reader.MoveToContent();
                    return reader.Name;
                }
            }
            catch (XmlException)
            {
                return "XmlException";
            }
        }
    }

    static void Main(string[] arguments)
    {
        server = "http://127.0.0.1:" + arguments[0];
        packet = File.ReadAllBytes(arguments[1]);
        Console.WriteLine("HttpClient | " + InTurn());
        Console.WriteLine("HttpClient, form | " + Status(Form(), "/rDx"));
        Console.WriteLine("HttpClient, no body | " + Status(null, "/rDx?FunctionName=rdxGetDeviceStatus"));
        Console.WriteLine("XmlReader, as it is | " + Read(new XmlReaderSettings()));
        Console.WriteLine("XmlReader | " + Read(new XmlReaderSettings { DtdProcessing = DtdProcessing.Ignore, XmlResolver = null }));
    }
}
