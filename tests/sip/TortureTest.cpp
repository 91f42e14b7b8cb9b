// Messages that try a parser: those that RFC 4475 tells of, written anew, and rubbish. After each one a telephone is
// served as if nothing had been.

#include "sip/SipTest.h"

#include <array>
#include <random>
#include <string_view>

namespace tortureTest {

namespace {

using phone::Message;
using phone::Phone;
using phone::Socket;
using phone::Transport;

class Torture : public SipTest {
protected:
    /// Beside the others dave, who never registers.
    Torture()
    {
        sql("INSERT INTO subscriber (sid, user_id, auth_user_id, s_password, active) VALUES (4, 'dave', 'dave', 'dave', true);"
            "INSERT INTO contact_set (csid, sid, ordering) VALUES (4, 4, 'parallel');"
            "INSERT INTO public_address (handle, sip_domain, csid) VALUES ('dave', 'oryx.example', 4)");
    }
    /// What the next telephone gets, of either server.
    std::string service()
    {
        Phone bob("bob", "oryx.example", m_port);
        Message request = bob.registration("<sip:bob@192.0.2.9>");
        if (m_isEventServer) { // to look once at what one publishes himself is for everybody
            request = bob.request("SUBSCRIBE", bob.address()).set("Event", "presence").set("Expires", "0");
        }
        return status(bob.ask(request));
    }
    void startEvents()
    {
        m_isEventServer = true;
        SipTest::startEvents();
    }
    /// The status line of the first final answer that comes; "silence" where nothing does for so long.
    static std::string finalAnswer(Socket& socket, int milliseconds)
    {
        while (!socket.silent(milliseconds)) {
            const Message answer = Message::parse(socket.receive());
            if (answer.status() >= 200) {
                return status(answer);
            }
        }
        return "silence";
    }

    bool m_isEventServer = false;
};

/// A message: "{via}" in it stands for a Via of the sender's, lines end with a line feed alone.
struct Trial {
    const char* name;
    const char* message;
    const char* answer;
    const char* eventServer = answer; ///< What that one answers.
};

std::string written(std::string_view text, const std::string& via)
{
    std::string message;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text.substr(at, 5) == "{via}") {
            message += via;
            at += 4;
        } else if (text[at] == '\n') {
            message += "\r\n";
        } else {
            message += text[at];
        }
    }
    return message;
}

const char* const kCommon = "To: <sip:alice@oryx.example>\nFrom: <sip:bob@oryx.example>;tag=1\nMax-Forwards: 70\n";

/// The head of a request that lacks nothing but its own field.
std::string requestOf(const std::string& method, const std::string& field)
{
    return method + " sip:dave@oryx.example SIP/2.0\nVia: {via}\n" + kCommon + "Call-ID: trial\nCSeq: 7 " + method +
           "\n" + field + "\nContent-Length: 0\n\n";
}

/// Section 3.1.1: right, however strange.
constexpr std::array kRight{
    Trial{
        "a short tortuous INVITE",
        "INVITE sip:dave@oryx.example;unknownparam SIP/2.0\n"
        "TO :\n sip:alice@oryx.example ;   tag    = 1918181833n\n"
        "from   : \"J Rosenberg \\\\\\\"\"       <sip:bob@oryx.example>\n  ;\n  tag = 98asjd8\n"
        "MaX-fOrWaRdS: 0068\nCall-ID: wsinv.ndaksdj@192.0.2.1\nContent-Length   : 0\n"
        "cseq: 0009\n  INVITE\nVia  : {via}\ns :\nNewFangledHeader:   newfangled value\n continued newfangled value\n"
        "UnknownHeaderWithUnusualValue: ;;,,;;,;\nContent-Type: application/sdp\n"
        "Route:\n <sip:192.0.2.77;lr;unknownwith=value;unknown-no-value>\nv:  SIP  / 2.0  / TCP     spindle.example.com   ;\n"
        "  branch  =   z9hG4bK9ikj8  ,\n SIP  /    2.0   / UDP  192.168.255.111   ; branch=\n z9hG4bK30239\n"
        "m:\"Quoted string \\\"\\\"\" <sip:bob@example.com> ; newparam =\n      newvalue ;\n  secondparam ; q = 0.33\n\n",
        "403 Forbidden"}, // its route leads elsewhere
    Trial{
        "all the characters that a method and a URI may have",
        "!interesting-Method0123456789_*.%indeed'~ sip:1_unusual.URI~(to-be!sure)&isn't+it$/crazy?,/;;*:&it+has=1,weird!"
        "*pas$wo~d_too.(doesn't-it)@oryx.example SIP/2.0\nVia: {via}\nTo: \"BEL:\\\x07 NUL:\\\x01 DEL:\\\x7F\" "
        "<sip:1_unusual.URI~(to-be!sure)&isn't+it$/crazy?,/;;*@oryx.example>\n"
        "From: token1~` token2'+_ token3*%!.- <sip:mundane@oryx.example>;fromParam''~+*_!.-%=\"\xD1\x80\xD0\xB0\xD0\xB1\";tag=_t\n"
        "Call-ID: intmeth.word%ZK-!.*_+'@word`~)(><:\\/\"][?}{\nMax-Forwards: 255\n"
        "CSeq: 139122385 !interesting-Method0123456789_*.%indeed'~\nextensionHeader-!.%*+_`'~:\xEF\xBB\xBF\xE5\xA4\xA7\xE5\x81\x9C\xE9\x9B\xBB\n"
        "Content-Length: 0\n\n",
        "404 Not Found"},
    Trial{
        "a method that the stack cannot read", // it knows no "+" and no "`" there
        "METH+OD` sip:dave@oryx.example SIP/2.0\nVia: {via}\nTo: <sip:dave@oryx.example>\n"
        "From: <sip:bob@oryx.example>;tag=1\nMax-Forwards: 70\nCall-ID: method\nCSeq: 1 METH+OD`\nContent-Length: 0\n\n",
        "silence"},
    Trial{"an escaped at sign and colon",
          "MESSAGE sip:sips%3Aalice%40oryx.example@oryx.example SIP/2.0\nVia: {via}\nTo: sip:%75se%72@example.com\n"
          "From: <sip:I%20have%20spaces@example.net>;tag=938\nMax-Forwards: 87\nCall-ID: esc01\nCSeq: 234234 MESSAGE\n"
          "Content-Length: 0\n\n",
          "404 Not Found"},
    Trial{
        "an escaped letter",
        "MESSAGE sip:%64ave@oryx.example SIP/2.0\nVia: {via}\nTo: sip:alice@oryx.example\n"
        "From: <sip:bob@oryx.example>;tag=938\nMax-Forwards: 87\nCall-ID: esc03\nCSeq: 1 MESSAGE\nContent-Length: 0\n\n",
        "480 Temporarily Unavailable"},
    Trial{
        "an escaped null", // right, and nothing that the database could hold
        "REGISTER sip:oryx.example SIP/2.0\nTo: sip:null-%00-null@oryx.example\n"
        "From: sip:null-%00-null@oryx.example;tag=839923423\nMax-Forwards: 70\nCall-ID: escnull\nCSeq: 14398234 REGISTER\n"
        "Via: {via}\nContact: <sip:%00@host5.example.com>\nContact: <sip:%00%00@host5.example.com>\nL:0\n\n",
        "400 Bad Request"},
    Trial{"a method that is none of ours by its percent signs",
          "RE%47IST%45R sip:oryx.example SIP/2.0\nVia: {via}\nTo: \"%Z%45\" <sip:alice@oryx.example>\n"
          "From: \"%Z%45\" <sip:bob@oryx.example>;tag=f232jadfj23\nCall-ID: esc02\nCSeq: 29344 RE%47IST%45R\n"
          "Max-Forwards: 70\nContact: <sip:alias1@host1.example.com>\nContent-Length: 0\n\n",
          "404 Not Found"},
    Trial{"no space before an angle bracket",
          "OPTIONS sip:oryx.example SIP/2.0\nTo: sip:oryx.example\nFrom: caller<sip:bob@oryx.example>;tag=323\n"
          "Max-Forwards: 70\nCall-ID: lwsdisp\nCSeq: 60 OPTIONS\nVia: {via}\nl: 0\n\n",
          "200 OK"},
    Trial{
        "octets behind its end",
        "REGISTER sip:oryx.example SIP/2.0\nTo: sip:alice@oryx.example\nFrom: sip:alice@oryx.example;tag=43251j3j324\n"
        "Max-Forwards: 8\nI: dblreq\nContact: sip:alice@host5.example.com\nCSeq: 8 REGISTER\nVia: {via}\n"
        "Content-Length: 0\n\nINVITE sip:joe@example.com SIP/2.0\nt: sip:joe@example.com\nThis is not a request.\n",
        "200 OK"},
    Trial{
        "semicolons in the user part",
        "MESSAGE sip:user;par=u%40example.net@oryx.example SIP/2.0\nTo: sip:bob@oryx.example\n"
        "From: sip:caller@oryx.example;tag=33242\nMax-Forwards: 3\nCall-ID: semiuri\nCSeq: 8 MESSAGE\nVia: {via}\nl: 0\n\n",
        "404 Not Found"},
    Trial{
        "transports that nobody knows",
        "MESSAGE sip:dave@oryx.example SIP/2.0\nTo: sip:alice@oryx.example\nFrom: sip:bob@oryx.example;tag=323\n"
        "Max-Forwards: 70\nCall-ID: transports\nCSeq: 60 MESSAGE\nVia: {via}\n"
        "Via: SIP/2.0/SCTP t2.example.com;branch=z9hG4bKklasjdhf\nVia: SIP/2.0/TLS t3.example.com;branch=z9hG4bK2980unddj\n"
        "Via: SIP/2.0/UNKNOWN t4.example.com;branch=z9hG4bKasd0f3en\nl: 0\n\n",
        "480 Temporarily Unavailable"},
    Trial{"a body in several parts",
          "MESSAGE sip:dave@oryx.example SIP/2.0\nVia: {via}\nMax-Forwards: 70\nTo: <sip:alice@oryx.example>\n"
          "From: <sip:bob@oryx.example>;tag=8814\nCall-ID: mpart01\nCSeq: 127 MESSAGE\n"
          "Content-Type: multipart/mixed;boundary=7a9cbec02ceef655\nContent-Length: 108\n\n--7a9cbec02ceef655\n"
          "Content-Type: text/plain\n\nHello\n--7a9cbec02ceef655\nContent-Type: x/y\n\n\1\2\3\n--7a9cbec02ceef655--",
          "480 Temporarily Unavailable"},
    Trial{"a response to nothing, with an unusual phrase",
          "SIP/2.0 200 = 2**3 * 5**2 \xD0\xBD\xD0\xBE\nVia: {via}\nCall-ID: unreason\nCSeq: 35 INVITE\n"
          "From: sip:user@example.com;tag=11141343\nTo: sip:user@example.edu;tag=2229\nContent-Length: 0\n\n",
          "silence"},
    Trial{"a response without a phrase",
          "SIP/2.0 100 \nVia: {via}\nCall-ID: noreason\nCSeq: 35 INVITE\nFrom: sip:user@example.com;tag=39\n"
          "To: sip:user@example.edu;tag=902\nContent-Length: 0\n\n",
          "silence"},
};

/// What the event server answers to a request that it takes for a right one, for a method that it does not have.
constexpr const char* kMethod = "405 Method Not Allowed";

/// Section 3.1.2: wrong.
constexpr std::array kWrong{
    Trial{
        "separators that part nothing", // in Via: there is no way back
        "INVITE sip:dave@oryx.example SIP/2.0\nTo: sip:alice@oryx.example\nFrom: sip:bob@oryx.example;tag=134161461246\n"
        "Max-Forwards: 7\nCall-ID: badinv01\nCSeq: 8 INVITE\nVia: {via};;,;,,\n"
        "Contact: \"Joe\" <sip:joe@example.org>;;;;\nContent-Length: 0\n\n",
        "silence"},
    Trial{"less of a body than was said",
          "INVITE sip:dave@oryx.example SIP/2.0\nMax-Forwards: 80\nTo: sip:alice@oryx.example\n"
          "From: sip:bob@oryx.example;tag=93942939o2\nContact: <sip:caller@hungry.example.net>\nCall-ID: clerr\n"
          "CSeq: 8 INVITE\nVia: {via}\nContent-Type: application/sdp\nContent-Length: 9999\n\nv=0\n",
          "400 *"},
    Trial{"a negative length",
          "INVITE sip:dave@oryx.example SIP/2.0\nMax-Forwards: 254\nTo: sip:alice@oryx.example\n"
          "From: sip:bob@oryx.example;tag=32394234\nCall-ID: ncl\nCSeq: 0 INVITE\nVia: {via}\nContent-Length: -999\n\n",
          "400 *"},
    Trial{
        "numbers beyond all bounds",
        "REGISTER sip:oryx.example SIP/2.0\nVia: {via}\nTo: <sip:alice@oryx.example>\nFrom: <sip:alice@oryx.example>;tag=239232jh3\n"
        "CSeq: 36893488147419103232 REGISTER\nCall-ID: scalar02\nMax-Forwards: 300\nExpires: 10000000000000000000000\n"
        "Contact: <sip:user@host129.example.com>\n ;expires=280297596632815\nContent-Length: 0\n\n",
        "400 *"},
    Trial{
        "a response with numbers beyond all bounds",
        "SIP/2.0 503 Service Unavailable\nVia: {via}\nTo: <sip:user@example.com>;tag=1\nFrom: <sip:other@example.net>;tag=2\n"
        "Call-ID: scalarlg\nCSeq: 9292394834772304023312 OPTIONS\nRetry-After: 949302838503028349304023988\n"
        "Warning: 1812 overture \"In Progress\"\nContent-Length: 0\n\n",
        "silence"},
    Trial{"a quote without its end",
          "INVITE sip:dave@oryx.example SIP/2.0\nTo: \"Mr. J. User <sip:alice@oryx.example>\n"
          "From: sip:bob@oryx.example;tag=93334\nMax-Forwards: 10\nCall-ID: quotbal\nCSeq: 8 INVITE\nVia: {via}\n"
          "Content-Length: 0\n\n",
          "400 *"},
    Trial{"a request URI in angle brackets",
          "INVITE <sip:alice@oryx.example> SIP/2.0\nTo: sip:alice@oryx.example\nFrom: sip:bob@oryx.example;tag=39291\n"
          "Max-Forwards: 23\nCall-ID: ltgtruri\nCSeq: 1 INVITE\nVia: {via}\nContent-Length: 0\n\n",
          "400 *"},
    Trial{
        "a request URI with a space", // no request can be seen in it
        "INVITE sip:dave@oryx.example; lr SIP/2.0\nTo: sip:alice@oryx.example;tag=3xfe-9921883-z9f\n"
        "From: sip:bob@oryx.example;tag=231413434\nMax-Forwards: 5\nCall-ID: lwsruri\nCSeq: 2130706432 INVITE\nVia: {via}\n"
        "Content-Length: 0\n\n",
        "silence"},
    Trial{
        "spaces in the first line", // which the robust may take for one
        "OPTIONS  sip:oryx.example  SIP/2.0\nMax-Forwards: 8\nTo: sip:oryx.example\nFrom: sip:bob@oryx.example;tag=8814\n"
        "Call-ID: lwsstart\nCSeq: 1893884 OPTIONS\nVia: {via}\nContent-Length: 0\n\n",
        "200 OK"},
    Trial{"spaces behind the first line",
          "OPTIONS sip:oryx.example SIP/2.0  \nVia: {via}\nMax-Forwards: 70\nFrom: sip:bob@oryx.example;tag=329429089\n"
          "To: sip:oryx.example\nCall-ID: trws\nCSeq: 238923 OPTIONS\nContent-Length: 0\n\n",
          "200 OK"},
    Trial{
        "header fields in the request URI", // of no meaning there, and not obeyed
        "INVITE sip:dave@oryx.example?Route=%3Csip:example.com%3E SIP/2.0\nTo: sip:alice@oryx.example\n"
        "From: sip:bob@oryx.example;tag=341518\nMax-Forwards: 7\nCall-ID: escruri\nCSeq: 149209342 INVITE\nVia: {via}\n"
        "Content-Length: 0\n\n",
        "400 *", kMethod},
    Trial{"a time zone that there is not in SIP", // nothing here reads the date
          "MESSAGE sip:dave@oryx.example SIP/2.0\nTo: sip:alice@oryx.example\nFrom: sip:bob@oryx.example;tag=2234923\n"
          "Max-Forwards: 70\nCall-ID: baddate\nCSeq: 1392934 MESSAGE\nVia: {via}\nDate: Fri, 01 Jan 2010 16:00:00 EST\n"
          "Content-Length: 0\n\n",
          "480 Temporarily Unavailable", kMethod},
    Trial{"a contact's header fields without angle brackets",
          "REGISTER sip:oryx.example SIP/2.0\nTo: sip:alice@oryx.example\nFrom: sip:alice@oryx.example;tag=998332\n"
          "Max-Forwards: 70\nCall-ID: regbadct\nCSeq: 1 REGISTER\nVia: {via}\n"
          "Contact: sip:user@example.com?Route=%3Csip:sip.example.com%3E\nl: 0\n\n",
          "400 *"},
    Trial{
        "spaces within the angle brackets", // harmless
        "MESSAGE sip:dave@oryx.example SIP/2.0\nVia: {via}\nMax-Forwards: 70\nTo: \"Watson, Thomas\" < sip:alice@oryx.example >\n"
        "From: \"Bell, Alexander\" <sip:bob@oryx.example>;tag=43\nCall-ID: badaspec\nCSeq: 0 MESSAGE\nContent-Length: 0\n\n",
        "480 Temporarily Unavailable", kMethod},
    Trial{
        "a comma in a display name without quotes",
        "MESSAGE sip:dave@oryx.example SIP/2.0\nVia: {via}\nMax-Forwards: 70\nTo: \"Watson, Thomas\" <sip:alice@oryx.example>\n"
        "From: Bell, Alexander <sip:bob@oryx.example>;tag=43\nCall-ID: baddn\nCSeq: 0 MESSAGE\nContent-Length: 0\n\n",
        "400 *"},
    Trial{"a version of the future",
          "OPTIONS sip:alice@oryx.example SIP/7.0\nVia: {via}\nMax-Forwards: 70\nTo: <sip:alice@oryx.example>\n"
          "From: <sip:bob@oryx.example>;tag=qweoiqpe\nCall-ID: badvers\nCSeq: 31417 OPTIONS\nContent-Length: 0\n\n",
          "505 *"},
    Trial{"two methods",
          "OPTIONS sip:oryx.example SIP/2.0\nTo: sip:alice@oryx.example\nFrom: sip:bob@oryx.example;tag=34525\n"
          "Max-Forwards: 6\nCall-ID: mismatch01\nCSeq: 8 INVITE\nVia: {via}\nl: 0\n\n",
          "400 *"},
    Trial{
        "two methods of which one is unknown",
        "NEWMETHOD sip:alice@oryx.example SIP/2.0\nTo: sip:alice@oryx.example\nFrom: sip:bob@oryx.example;tag=34525\n"
        "Max-Forwards: 6\nCall-ID: mismatch02\nCSeq: 8 INVITE\nContact: <sip:caller@host.example.net>\nVia: {via}\nl: 0\n\n",
        "400 *"},
    Trial{"a response whose status has too many digits",
          "SIP/2.0 4294967301 better not break the receiver\nVia: {via}\nCall-ID: bigcode\nCSeq: 353494 INVITE\n"
          "From: <sip:user@example.com>;tag=39\nTo: <sip:user@example.edu>;tag=9\nContent-Length: 0\n\n",
          "silence"},
};

/// Sections 3.2 to 3.4: what is for the layers above, and what old telephones send.
constexpr std::array kMeaning{
    Trial{
        "no Call-ID, no From, no To",
        "INVITE sip:dave@oryx.example SIP/2.0\nCSeq: 193942 INVITE\nVia: {via}\nContent-Type: application/sdp\nl: 0\n\n",
        "400 *"},
    Trial{"a scheme that nobody knows",
          "OPTIONS nobodyKnowsThisScheme:totallyopaquecontent SIP/2.0\nTo: sip:alice@oryx.example\n"
          "From: sip:bob@oryx.example;tag=384\nMax-Forwards: 3\nCall-ID: unkscm\nCSeq: 3923423 OPTIONS\nVia: {via}\n"
          "Content-Length: 0\n\n",
          "416 *"},
    Trial{
        "a scheme of others",
        "OPTIONS soap.beep://192.0.2.103:3002 SIP/2.0\nTo: sip:alice@oryx.example\nFrom: sip:bob@oryx.example;tag=384\n"
        "Max-Forwards: 70\nCall-ID: novelsc\nCSeq: 1 OPTIONS\nVia: {via}\nContent-Length: 0\n\n",
        "416 *"},
    Trial{"names of other kinds",
          "REGISTER sip:oryx.example SIP/2.0\nTo: isbn:2983792873\nFrom: <http://www.example.com>;tag=3234233\n"
          "Call-ID: unksm2\nCSeq: 234902 REGISTER\nMax-Forwards: 70\nVia: {via}\nContact: <name:John_Smith>\nl: 0\n\n",
          "400 *"},
    Trial{
        "extensions that are required of proxies",
        "OPTIONS sip:alice@oryx.example SIP/2.0\nTo: sip:alice@oryx.example\nFrom: sip:bob@oryx.example;tag=242etr\n"
        "Max-Forwards: 6\nCall-ID: bext01\nRequire: nothingSupportsThis, nothingSupportsThisEither\n"
        "Proxy-Require: noProxiesSupportThis, norDoAnyProxiesSupportThis\nCSeq: 8 OPTIONS\nVia: {via}\nContent-Length: 0\n\n",
        "420 Bad Extension"},
    Trial{"a body that nobody knows",
          "INVITE sip:dave@oryx.example SIP/2.0\nContact: <sip:caller@host5.example.net>\nTo: sip:alice@oryx.example\n"
          "From: sip:bob@oryx.example;tag=8392034\nMax-Forwards: 70\nCall-ID: invut\nCSeq: 235448 INVITE\nVia: {via}\n"
          "Content-Type: application/unknownformat\nContent-Length: 6\n\n<a/>\n",
          "480 Temporarily Unavailable"},
    Trial{
        "a way of proof that nobody knows",
        "REGISTER sip:oryx.example SIP/2.0\nTo: sip:alice@oryx.example\nFrom: sip:alice@oryx.example;tag=87321hj23128\n"
        "Max-Forwards: 8\nCall-ID: regaut01\nCSeq: 9338 REGISTER\nVia: {via}\n"
        "Authorization: NoOneKnowsThisScheme opaque-data=here\nContent-Length:0\n\n",
        "200 OK"},
    Trial{
        "two of what there is one of",
        "INVITE sip:dave@oryx.example SIP/2.0\nContact: <sip:caller@host25.example.net>\nVia: {via}\nMax-Forwards: 70\n"
        "CSeq: 5 INVITE\nCall-ID: multi01.98asdh@192.0.2.1\nCSeq: 59 INVITE\nCall-ID: multi01.98asdh@192.0.2.2\n"
        "From: sip:bob@oryx.example;tag=3413415\nTo: sip:alice@oryx.example\nTo: sip:other@example.net\n"
        "From: sip:caller@example.net;tag=2923420123\nContent-Length: 0\n\n",
        "400 *"},
    Trial{
        "two lengths",
        "OPTIONS sip:alice@oryx.example SIP/2.0\nVia: {via}\nMax-Forwards: 70\nTo: sip:alice@oryx.example\n"
        "From: sip:bob@oryx.example;tag=3413415\nCall-ID: mcl01\nCSeq: 5 OPTIONS\nContent-Length: 13\nContent-Length: 5\n\n"
        "There's no way to know how many octets are supposed to be here.\n",
        "400 *"},
    Trial{"a response by way of everybody",
          "SIP/2.0 200 OK\nVia: SIP/2.0/UDP 192.0.2.198;branch=z9hG4bK1324923\n"
          "Via: SIP/2.0/UDP 255.255.255.255;branch=z9hG4bK1saber23\nCall-ID: bcast\nMax-Forwards: 8\nCSeq: 39 INVITE\n"
          "To: sip:user@example.com;tag=2n3392\nFrom: sip:other@example.net;tag=s\nContent-Length: 0\n\n",
          "silence"},
    Trial{"nothing left of its hops",
          "OPTIONS sip:alice@oryx.example SIP/2.0\nTo: sip:alice@oryx.example\nFrom: sip:bob@oryx.example;tag=3ghsd41\n"
          "Call-ID: zeromf\nCSeq: 39234 OPTIONS\nVia: {via}\nMax-Forwards: 0\nContent-Length: 0\n\n",
          "483 Too Many Hops"},
    Trial{
        "a contact's parameter of the field",
        "REGISTER sip:oryx.example SIP/2.0\nVia: {via}\nMax-Forwards: 70\nFrom: sip:alice@oryx.example;tag=4\n"
        "To: sip:alice@oryx.example\nCall-ID: cparam01\nCSeq: 0 REGISTER\nContact: sip:+19725552222@gw1.example.net;unknownparam\n"
        "Content-Length: 0\n\n",
        "200 OK"},
    Trial{"a contact's parameter of the URI",
          "REGISTER sip:oryx.example SIP/2.0\nVia: {via}\nMax-Forwards: 70\nFrom: sip:alice@oryx.example;tag=4\n"
          "To: sip:alice@oryx.example\nCall-ID: cparam02\nCSeq: 1 REGISTER\n"
          "Contact: <sip:+19725552222@gw1.example.net;unknownparam>\nContent-Length: 0\n\n",
          "200 OK"},
    Trial{"a contact's escaped header field",
          "REGISTER sip:oryx.example SIP/2.0\nTo: sip:alice@oryx.example\nFrom: sip:alice@oryx.example;tag=8\n"
          "Max-Forwards: 70\nCall-ID: regescrt\nCSeq: 14398234 REGISTER\nVia: {via}\n"
          "Contact: <sip:user@example.com?Route=%3Csip:sip.example.com%3E>\nL:0\n\n",
          "200 OK"},
    Trial{
        "an INVITE of the old kind",
        "INVITE sip:dave@oryx.example SIP/2.0\nVia: {oldvia}\nFrom: <sip:bob@oryx.example>\nTo: <sip:alice@oryx.example>\n"
        "Call-ID: inv2543\nCSeq: 56 INVITE\nContent-Type: application/sdp\n\n",
        "480 Temporarily Unavailable"},
};

/// Fields that this server reads, and what cannot be read of them: RFC 3261 sections 16.3 and 25.1.
struct Field {
    const char* method;
    const char* field;
    const char* answer;
};
constexpr std::array kFields{
    Field{"MESSAGE", "Route: <sip:a@b", "400 *"},
    Field{"MESSAGE", "Route: nothing", "400 *"},
    Field{"MESSAGE", "Max-Forwards: many", "400 *"},
    Field{"MESSAGE", "Max-Forwards: -1", "400 *"},
    Field{"MESSAGE", "Proxy-Require: ,;,", "400 *"},
    Field{"REGISTER", "Path: <sip:edge.example", "400 *"},
    Field{"REGISTER", "Path: ;;;", "400 *"},
    Field{"REGISTER", "Contact: <sip:alice@>", "400 *"},
    Field{"REGISTER", "Contact: <sip:alice@-->", "400 *"},
    Field{"REGISTER", "Contact: <sip:alice@a_b!c>", "400 *"},
    Field{"REGISTER", "Contact: <sip:alice@[::1>", "400 *"},
    Field{"REGISTER", "Contact: <sip:alice@1.2.3.4.5>", "400 *"},
    Field{"REGISTER", "Contact: <sip:alice@192.0.2.1:99999>", "400 *"},
    Field{"REGISTER", "Contact: <mailto:alice@oryx.example>", "400 *"},
    Field{"REGISTER", "Contact: <sip:alice@192.0.2.1>;q=1.5", "400 *"},
    Field{"REGISTER", "Contact: <sip:alice@192.0.2.1>;q=0.1234", "400 *"},
    Field{"REGISTER", "Contact: <sip:alice@192.0.2.1>;q=high", "400 *"},
    Field{"REGISTER", "Contact: <sip:alice@192.0.2.1>;q=1.000", "200 OK"},
    Field{"REGISTER", "Contact: <sip:alice@\xFF\xFE.example>", "400 *"},
    Field{"REGISTER", "Expires: -5", "400 *"},
};

/// The answer, as far as the pattern tells: "400 *" is any answer 400.
std::string asFarAs(const std::string& pattern, const std::string& answer)
{
    const bool open = pattern.ends_with(" *");
    return open && answer.starts_with(pattern.substr(0, 4)) ? pattern : answer;
}

class TortureByUdp : public Torture {
protected:
    template <std::size_t Count>
    void tryAll(const std::array<Trial, Count>& trials)
    {
        for (const Trial& trial : trials) {
            SCOPED_TRACE(trial.name);
            const char* const answer = m_isEventServer ? trial.eventServer : trial.answer;
            const int patience = std::string_view(answer) == "silence" ? 400 : 5000;
            EXPECT_EQ(asFarAs(answer, tried(trial.message, patience)), answer);
        }
    }
    /// The answer to a message, for which it waits so long, and whether a telephone is served after it.
    std::string tried(const std::string& message, int milliseconds = 5000)
    {
        Socket socket;
        const std::string host = "SIP/2.0/UDP " + socket.hostPort();
        std::string text = message;
        const std::size_t old = text.find("{oldvia}");
        if (old != std::string::npos) {
            text.replace(old, 8, host);
        }
        text = written(text, host + ";branch=z9hG4bK-trial-" + std::to_string(socket.port()) + ";rport");
        socket.send(m_port, text);
        const std::string answer = finalAnswer(socket, milliseconds);
        const std::string after = service();
        return after == "200 OK" ? answer : "then " + after;
    }
};

TEST_F(TortureByUdp, OfRightMessages)
{
    startRegistrar();
    tryAll(kRight);
}

TEST_F(TortureByUdp, OfWrongMessages)
{
    startRegistrar();
    tryAll(kWrong);
    EXPECT_EQ(bindings(), "sip:bob@192.0.2.9\n");
}

TEST_F(TortureByUdp, OfWrongMessagesToTheEventServer)
{
    startEvents();
    tryAll(kWrong);
}

TEST_F(TortureByUdp, OfMessagesThatMeanSomethingElse)
{
    startRegistrar();
    tryAll(kMeaning);
}

/// RFC 4475 section 3.3.7: what proves nothing is as good as none.
TEST_F(TortureByUdp, OfAWayOfProofThatNobodyKnows)
{
    startRegistrar({});
    Phone alice("alice", "oryx.example", m_port);
    Message request = alice.registration("<sip:alice@192.0.2.1>");
    const Message answer = alice.ask(request.set("Authorization", "NoOneKnowsThisScheme opaque-data=here"));
    EXPECT_EQ(status(answer), "401 Unauthorized");
    EXPECT_EQ(answer.parameter("WWW-Authenticate", "realm"), "oryx.example");
    EXPECT_EQ(bindings(), "");
}

/// RFC 4475 section 3.2.1: a branch that is nothing but the magic cookie tells no transaction from another (RFC 3261
/// section 17.2.3).
TEST_F(TortureByUdp, OfTheMagicCookieAlone)
{
    const auto answers = [this](const std::vector<std::array<const char*, 2>>& requests) {
        Phone bob("bob", "oryx.example", m_port);
        std::string all;
        for (const auto& [method, uri] : requests) {
            Message request = bob.request(method, uri).set("Event", "presence").set("Expires", "0");
            request.set("Via", "SIP/2.0/UDP " + bob.socket().hostPort() + ";branch=z9hG4bK");
            all += status(bob.ask(request)).substr(0, 4);
        }
        return all;
    };
    startRegistrar();
    EXPECT_EQ(answers({{"REGISTER", "sip:alice@oryx.example"},
                       {"REGISTER", "sip:nobody@oryx.example"},
                       {"MESSAGE", "sip:dave@oryx.example"},
                       {"MESSAGE", "sip:nobody@oryx.example"},
                       {"INVITE", "sip:dave@oryx.example"},
                       {"INVITE", "sip:nobody@oryx.example"},
                       {"OPTIONS", "sip:oryx.example"}}),
              "200 404 480 404 480 404 200 ");
    ASSERT_EQ(stop(), 0);
    startEvents();
    EXPECT_EQ(answers({{"SUBSCRIBE", "sip:bob@oryx.example"},
                       {"SUBSCRIBE", "sip:nobody@oryx.example"},
                       {"MESSAGE", "sip:bob@oryx.example"},
                       {"OPTIONS", "sip:oryx.example"}}),
              "200 404 405 200 ");
}

/// RFC 4475 section 3.3.15: who accepts only what nobody can send. Of a call that is the telephones' to judge.
TEST_F(TortureByUdp, OfAnAcceptThatNobodyCanMeet)
{
    startRegistrar();
    Phone bob("bob", "oryx.example", m_port);
    Message call = bob.request("INVITE", "sip:alice@oryx.example").set("Content-Type", "application/sdp");
    call.body = "v=0\r\no=caller 53655765 2353687637 IN IP4 127.0.0.1\r\ns=-\r\nt=0 0\r\n";
    Phone alice("alice", "oryx.example", m_port);
    ASSERT_EQ(status(alice.ask(alice.registration("<" + alice.contact() + ">"))), "200 OK");
    bob.send(call.set("Accept", "text/nobodyKnowsThis"));
    const Message passed = alice.receive();
    EXPECT_EQ(passed.field("Accept"), "text/nobodyKnowsThis");
    EXPECT_EQ(passed.body, call.body);
    ASSERT_EQ(stop(), 0);
    startEvents();
    for (const char* const event : {"presence", "presence.winfo"}) {
        Message request = bob.request("SUBSCRIBE", bob.address()).set("Event", event).set("Expires", "0");
        EXPECT_EQ(status(bob.ask(request.set("Accept", "text/nobodyKnowsThis"))), "406 Not Acceptable");
    }
    EXPECT_EQ(service(), "200 OK");
}

TEST_F(TortureByUdp, OfFieldsThatCannotBeRead)
{
    startRegistrar();
    for (const Field& field : kFields) {
        SCOPED_TRACE(field.field);
        EXPECT_EQ(asFarAs(field.answer, tried(requestOf(field.method, field.field))), field.answer);
    }
}

/// Section 8.2.2.3: all that is not understood is named.
TEST_F(TortureByUdp, OfExtensionsNamesThemAll)
{
    startRegistrar();
    Phone alice("alice", "oryx.example", m_port);
    Message request =
        alice.registration("<sip:alice@192.0.2.1>").add("Require", "path, gruu").add("Require", "outbound");
    EXPECT_EQ(alice.ask(request).field("Unsupported"), "gruu, outbound");
    request = alice.request("MESSAGE", "sip:bob@oryx.example").add("Proxy-Require", "one, two");
    EXPECT_EQ(alice.ask(request).field("Unsupported"), "one, two");
}

/// Section 21.4.12, and what no text of the database can be.
TEST_F(TortureByUdp, OfAddresses)
{
    startRegistrar();
    Phone bob("bob", "oryx.example", m_port);
    const auto answered = [&](const std::string& uri) {
        return status(bob.ask(bob.request("MESSAGE", uri, "sip:alice@oryx.example")));
    };
    EXPECT_EQ(answered("sip:" + std::string(4000, 'a') + "@oryx.example"), "414 Request-URI Too Long");
    EXPECT_EQ(answered("sip:alice@oryx.example;" + std::string(4000, 'p')), "414 Request-URI Too Long");
    EXPECT_EQ(answered("sip:\xFF\xFE@oryx.example").substr(0, 4), "400 ");
    EXPECT_EQ(answered("sip:%ff%fe@oryx.example").substr(0, 4), "400 ");
    EXPECT_EQ(answered("sip:alice@\xFF\xFE.example").substr(0, 4), "400 ");
    Message request = bob.request("MESSAGE", "sip:alice@oryx.example");
    request.set("From", "<sip:bob@\xC3\x28.example>;tag=1");
    EXPECT_EQ(status(bob.ask(request)).substr(0, 4), "400 ");
    EXPECT_EQ(service(), "200 OK");
}

TEST_F(TortureByUdp, OfRubbish)
{
    startRegistrar();
    std::mt19937 random(1); // the same rubbish each time
    Socket socket;
    for (const std::size_t size : {0U, 1U, 2U, 3U, 4U, 16U, 100U, 1500U, 9000U, 65507U}) {
        std::string text(size, '\0');
        for (char& c : text) {
            c = static_cast<char>(random());
        }
        socket.send(m_port, text);
        socket.send(m_port, "REGISTER sip:oryx.example SIP/2.0\r\n" + text.substr(0, 60000));
    }
    const std::string via = "SIP/2.0/UDP " + socket.hostPort() + ";branch=z9hG4bK-rubbish";
    const std::string request = written(requestOf("MESSAGE", "X: y"), via);
    for (std::size_t size = 0; size < request.size(); size += 7) {
        socket.send(m_port, request.substr(0, size));
    }
    EXPECT_EQ(service(), "200 OK");
}

/// What there is very much of, and what is very long.
TEST_F(TortureByUdp, OfMessagesThatAreLarge)
{
    startRegistrar();
    const auto many = [](const std::string& line, int count) {
        std::string lines;
        for (int n = 0; n < count; ++n) {
            lines += (n > 0 ? "\n" : "") + line;
        }
        return lines;
    };
    EXPECT_EQ(tried(requestOf("MESSAGE", many("X-Nothing: said", 200))), "480 Temporarily Unavailable");
    EXPECT_EQ(tried(requestOf("MESSAGE", "Subject: " + std::string(60000, 's'))), "480 Temporarily Unavailable");
    EXPECT_EQ(tried(requestOf("MESSAGE", many("Via: SIP/2.0/UDP 192.0.2.1;branch=z9hG4bK1", 200))),
              "480 Temporarily Unavailable");
    EXPECT_EQ(tried(requestOf("MESSAGE", many("Route: <sip:192.0.2.1;lr>", 200))), "403 Forbidden");
    EXPECT_EQ(tried(requestOf("REGISTER", many("Contact: <sip:alice@192.0.2.1>", 200))), "400 Bad Request");
    EXPECT_EQ(tried(requestOf("REGISTER", many("Path: <sip:192.0.2.1;lr>", 200))), "400 Bad Request");
    EXPECT_EQ(tried(requestOf("REGISTER", many("Authorization: Digest realm=\"x\", nonce=\"y\"", 100))), "200 OK");
    for (const char* const method : {"MESSAGE", "REGISTER"}) { // more than anybody has a use for
        EXPECT_EQ(tried(requestOf(method, many("X-Nothing: said", 1000))), "413 Request Entity Too Large");
        EXPECT_EQ(tried(requestOf(method, many("Contact: <sip:alice@192.0.2.1>", 1000))),
                  "413 Request Entity Too Large");
    }
    EXPECT_EQ(tried(requestOf("REGISTER", "Contact: <sip:alice@" + std::string(2000, 'h') + ">")), "400 Bad Request");
    EXPECT_EQ(bindings(), "sip:bob@192.0.2.9\n");
}

/// RFC 3261 section 18.3: a stream has no end of a message but what Content-Length says.
TEST_F(Torture, OfStreams)
{
    startRegistrar();
    const auto text = [](const Socket& socket, const std::string& call) {
        std::string message = written(requestOf("REGISTER", "Contact: <sip:alice@192.0.2.1>"),
                                      "SIP/2.0/TCP " + socket.hostPort() + ";branch=z9hG4bK-" + call);
        return message.replace(message.find("Call-ID: trial"), 14, "Call-ID: " + call);
    };
    { // in pieces, and two in one
        Socket socket("127.0.0.1", Transport::tcp);
        const std::string both = "\r\n\r\n" + text(socket, "one") + text(socket, "two");
        for (const char c : both) {
            socket.send(m_port, std::string(1, c));
        }
        EXPECT_EQ(status(Message::parse(socket.receive())), "200 OK");
        EXPECT_EQ(status(Message::parse(socket.receive())), "200 OK");
    }
    for (std::size_t cut = 1; cut < 300; cut += 23) { // hung up anywhere
        Socket socket("127.0.0.1", Transport::tcp);
        socket.send(m_port, text(socket, "cut").substr(0, cut));
    }
    for (const std::string& rubbish :
         {std::string(200000, 'x'), std::string(100000, '\0'), "REGISTER sip:x SIP/2.0\r\n" + std::string(300000, 'y'),
          std::string("REGISTER sip:oryx.example SIP/2.0\r\nContent-Length: 999999999999\r\n\r\n"),
          std::string("REGISTER sip:oryx.example SIP/2.0\r\nContent-Length: -5\r\n\r\n")}) {
        Socket socket("127.0.0.1", Transport::tcp);
        socket.send(m_port, rubbish);
    }
    EXPECT_EQ(service(), "200 OK");
    Phone alice("alice", "oryx.example", m_port, "127.0.0.1", Transport::tcp);
    EXPECT_EQ(status(alice.ask(alice.registration("<sip:alice@192.0.2.1>"))), "200 OK");
}

} // namespace

} // namespace tortureTest
