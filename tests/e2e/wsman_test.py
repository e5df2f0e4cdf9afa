# WS-Management through port 664: Debian's wsl, a client of its own, and envelopes of every kind of
# damage. The answers show the host as it has reported itself.
import hashlib
import os
import pathlib
import re
import subprocess
import xml.etree.ElementTree as xml

from listener import Listener
from stewardry_lab import BOUND, HOST, PATIENCE, PORT, LabTest, Orrin, connect, curl, receive, run

NAMES = {"s": "http://www.w3.org/2003/05/soap-envelope",
         "a": "http://schemas.xmlsoap.org/ws/2004/08/addressing",
         "w": "http://schemas.dmtf.org/wbem/wsman/1/wsman.xsd",
         "e": "http://schemas.xmlsoap.org/ws/2004/09/enumeration",
         "b": "http://schemas.dmtf.org/wbem/wsman/1/cimbinding.xsd",
         "v": "http://schemas.xmlsoap.org/ws/2004/08/eventing"}
CIM = "http://schemas.dmtf.org/wbem/wscim/1/cim-schema/2/"
GET, PUT = ("http://schemas.xmlsoap.org/ws/2004/09/transfer/" + name for name in ("Get", "Put"))
ENUMERATE, PULL, RELEASE = (NAMES["e"] + "/" + name for name in ("Enumerate", "Pull", "Release"))
SCHEMA = str(pathlib.Path(__file__).with_name("schemas") / "soap-envelope.xsd")
ACCESS = (("SystemCreationClassName", "CIM_ComputerSystem"), ("SystemName", "HOST"),
          ("CreationClassName", "CIM_KVMRedirectionSAP"), ("Name", "kvm"))


def envelope(action, resource, body="", selectors=(), more=""):
    spaces = " ".join('xmlns:%s="%s"' % row for row in NAMES.items())
    chosen = "".join('<w:Selector Name="%s">%s</w:Selector>' % row for row in selectors)
    return ("<s:Envelope %s><s:Header><a:Action>%s</a:Action><a:MessageID>uuid:1</a:MessageID>"
            "<w:ResourceURI>%s</w:ResourceURI><w:SelectorSet>%s</w:SelectorSet>%s</s:Header>"
            "<s:Body>%s</s:Body></s:Envelope>" % (spaces, action, resource, chosen, more, body))


def checked(answer):
    """Returns the answer, which must have the shape of SOAP and WS-Addressing."""
    untyped = re.sub(rb' xsi:type="e:\w+"', b"", answer)  # the classes have no schemas here
    done = subprocess.run(["xmllint", "--noout", "--nonet", "--schema", SCHEMA, "-"], input=untyped,
                          check=False, capture_output=True)
    assert done.returncode == 0, (answer, done.stderr)
    return answer


def ask(text):
    data = text if isinstance(text, bytes) else text.encode()
    return xml.fromstring(checked(curl("/wsman", "--no-fail", data=data)))


def fault(text):
    """Returns the subcode, or the code without one, and the last part of the detail."""
    answer = ask(text).find("s:Body/s:Fault", NAMES)
    assert answer is not None, text[:400]
    values = [value.text for value in answer.findall("s:Code//s:Value", NAMES)]
    detail = answer.findtext("s:Detail/w:FaultDetail", "", NAMES)
    return values[-1], detail.rpartition("/")[2]


def values(answer, name):
    return [element.text for element in answer.iter() if element.tag.endswith("}" + name)]


def computer_keys():
    """Returns the name of the managed computer, and its keys."""
    name = values(ask(envelope(ENUMERATE, CIM + "CIM_ComputerSystem",
                               "<e:Enumerate><w:OptimizeEnumeration/></e:Enumerate>")), "Name")[0]
    return name, (("CreationClassName", "CIM_ComputerSystem"), ("Name", name))


class Console(LabTest):
    addressed = ("CIM_IPProtocolEndpoint", "192.0.2.10")  # a class, and what its instance has

    def wsl(self, *words, **more):
        """Returns what one of wsl's commands has got as its answer."""
        environment = dict(os.environ, HOME=self.folder, WSENDPOINT="%s:%d" % (HOST, PORT),
                           WSUSER="x", WSPASS="x", IPINTERACTIVE="n", WSDONTASK="y", OUTLEVEL="1")
        environment |= more
        done = subprocess.run(words, cwd=self.folder, env=environment, check=False,
                              capture_output=True, stdin=subprocess.DEVNULL)
        names = [self.path(name) for name in os.listdir(self.folder) if name.startswith("response-")]
        answers = [pathlib.Path(name).read_bytes() for name in sorted(names)]
        for name in names:
            os.unlink(name)
        self.assertTrue(answers, done)
        return "".join(checked(answer).decode() for answer in answers)

    def test_a_console_identifies_enumerates_gets_and_invokes(self):
        self.start_both()
        self.orrin.saw("WriteNwInfo")  # the last one of the host's reports
        computer, keys = computer_keys()
        self.assertIn("ProductVersion>2.4.1.0<", self.wsl("wslid", "check"))
        self.assertIn("CIM_KVMRedirectionSAP", self.wsl("wslecn", "check"))
        for name, expected in (
                ("CIM_ComputerSystem", computer), ("CIM_OperatingSystem", "Version"),
                ("CIM_EthernetPort", "PermanentAddress"), self.addressed,
                ("CIM_PowerManagementService", "power"), ("CIM_RegisteredProfile", "DSP1058"),
                ("CIM_AssociatedPowerManagementService", "ReferenceParameters"),
                ("CIM_SoftwareIdentity", "2.4.1.0"), ("CIM_KVMRedirectionSAP", "EnabledState>3<"),
                ("CIM_Chassis", "Corvane"), ("CIM_ManagedElement", "CIM_Chassis")):
            self.assertIn(expected, self.wsl("wslenum", name), name)
        self.assertIn("EndpointReference", self.wsl("wslenum", "CIM_Chassis", "-mode", "epr"))
        self.assertIn("HealthState>5<", self.wsl("wslget", "CIM_ComputerSystem",
                                                 *("=".join(key) for key in keys)))
        self.assertIn("ReturnValue>0<", self.wsl(
            "wslinvoke", "CIM_PowerManagementService", "RequestPowerStateChange", "PowerState=10"))
        self.logged("Reboot initiated")


class Wsman(Console):
    test_a_console_identifies_enumerates_gets_and_invokes = None

    def setUp(self):
        super().setUp()
        self.restart()
        self.computer, self.keys = computer_keys()

    def restart(self):
        """Starts firmware and service, after ending those that run. The objects outlive it."""
        for process in reversed(self.processes):
            process.end()
            os.unlink(process.out)  # what follows waits for lines of the new one
        self.processes = []
        count = self.log().count(BOUND) if os.path.exists(self.log_path()) else 0
        self.orrin = self.add(
            Orrin(self, "--repository", self.path("objects"), "--socket", "mailbox0"))
        self.start_service(ready=None)
        self.logged(BOUND, count + 1)
        self.orrin.saw("WriteNwInfo")  # the last one of the host's reports

    def test_enumerations_keep_to_their_modes_limits_and_filters(self):
        def first(words, resource="CIM_RegisteredProfile"):
            return ask(envelope(ENUMERATE, CIM + resource,
                                "<e:Enumerate>%s</e:Enumerate>" % words))

        def pull(context, words="<e:MaxElements>4</e:MaxElements>", kind="Pull"):
            return envelope(NAMES["e"] + "/" + kind, CIM + "CIM_RegisteredProfile",
                            "<e:%s><e:EnumerationContext>%s</e:EnumerationContext>%s</e:%s>"
                            % (kind, context, words, kind))

        answer, counts = first(""), []
        while context := values(answer, "EnumerationContext"):
            answer = ask(pull(context[0]))
            counts.append(len(values(answer, "RegisteredName")))
        self.assertEqual(counts, [4, 2])
        self.assertEqual(len(values(answer, "EndOfSequence")), 1)
        self.assertEqual(fault(pull("uuid:none")), ("wsen:InvalidEnumerationContext", ""))
        context = values(first(""), "EnumerationContext")[0]
        ask(pull(context, "", "Release"))
        self.assertEqual(fault(pull(context))[0], "wsen:InvalidEnumerationContext")
        dialect = "http://schemas.dmtf.org/wbem/wsman/1/wsman/SelectorFilter"
        chosen = ('<w:OptimizeEnumeration/><w:MaxElements>9</w:MaxElements><w:Filter Dialect="%s">'
                  '<w:SelectorSet><w:Selector Name="RegisteredName">OS Status</w:Selector>'
                  '</w:SelectorSet></w:Filter>')
        self.assertEqual(values(first(chosen % dialect), "RegisteredName"), ["OS Status"])
        self.assertEqual(fault(envelope(ENUMERATE, CIM + "CIM_Chassis",
                                        "<e:Enumerate>%s</e:Enumerate>" % chosen % "x"))[0],
                         "wsen:FilterDialectRequestedUnavailable")
        everything = "<w:OptimizeEnumeration/><w:MaxElements>99</w:MaxElements>%s"
        mode = "<b:PolymorphismMode>%s</b:PolymorphismMode>"
        shown = first(everything % mode % "ExcludeSubClassProperties", "CIM_ManagedElement")
        self.assertFalse(values(shown, "RegisteredName"))
        self.assertGreater(len(values(shown, "ElementName")), 10)
        self.assertFalse(values(first(everything % mode % "None", "CIM_ManagedElement"), "Caption"))
        pairs = first(everything % "<w:EnumerationMode>EnumerateObjectAndEPR</w:EnumerationMode>")
        self.assertEqual(len(pairs.findall(".//w:Item/a:EndpointReference", NAMES)), 6)
        # The reference of an association is one that Get accepts.
        link = first(everything % "<w:EnumerationMode>EnumerateEPR</w:EnumerationMode>",
                     "CIM_AssociatedPowerManagementService")
        chosen = link.find(".//w:SelectorSet", NAMES)
        parts = [(part.get("Name"), "".join(xml.tostring(e, "unicode") for e in part))
                 for part in chosen]
        got = ask(envelope(GET, CIM + "CIM_AssociatedPowerManagementService", "", parts))
        self.assertEqual(values(got, "PowerState"), ["2"])

    def test_what_a_console_writes_stays_and_a_method_reaches_the_host(self):
        place = (CIM + "CIM_ComputerSystem", self.keys)

        def put(words):
            return envelope(PUT, place[0], '<p:x xmlns:p="%s">%s</p:x>' % (place[0], words), place[1])

        owner = "<p:PrimaryOwnerName>Ann &amp; Zoë</p:PrimaryOwnerName>"
        self.assertEqual(values(ask(put(owner)), "PrimaryOwnerName"), ["Ann & Zoë"])
        self.restart()
        answer = ask(envelope(GET, place[0], "", place[1]))
        self.assertEqual(values(answer, "PrimaryOwnerName"), ["Ann & Zoë"])
        for words, expected in (("<p:HealthState>7</p:HealthState>", ""),
                                ("<p:HealthState>70000</p:HealthState>", "TypeMismatch"),
                                ("<p:HealthState>five</p:HealthState>", "TypeMismatch"),
                                ("<p:Nothing>1</p:Nothing>", "InvalidName")):
            self.assertEqual(fault(put(words)), ("wsman:InvalidParameter", expected), words)
        resource = CIM + "CIM_KVMRedirectionSAP"
        call = ('<p:RequestStateChange_INPUT xmlns:p="%s">%s</p:RequestStateChange_INPUT>'
                % (resource, "%s"))
        keys = [(name, self.computer if value == "HOST" else value) for name, value in ACCESS]
        method = resource + "/RequestStateChange"
        state = "<p:RequestedState>2</p:RequestedState>"
        before = self.orrin.here()
        self.assertEqual(values(ask(envelope(method, resource, call % state, keys)), "ReturnValue"),
                         ["0"])
        self.orrin.saw("KVM_ENABLE", before)
        self.assertEqual(values(ask(envelope(GET, resource, "", keys)), "EnabledState"), ["2"])
        self.logged("Bind to port 22 successful")
        with connect(22) as viewer:
            self.assertEqual(receive(viewer, 12), b"RFB 003.008\n")
        self.assertEqual(fault(envelope(method, resource, call % "", keys)),
                         ("wsman:InvalidParameter", "MissingValues"))
        self.assertEqual(fault(envelope(resource + "/No", resource, "", keys))[0],
                         "wsa:ActionNotSupported")

    def test_a_subscriber_gets_the_events_of_the_host_until_it_leaves(self):
        def subscribe(port, words="", filter_id="orrin:all", url="http://%s:%d/events"):
            listener = ("<a:Address>%s</a:Address><a:ReferenceParameters><z:Mark xmlns:z='urn:z'>7"
                        "</z:Mark></a:ReferenceParameters>" % (url % (HOST, port) if "%" in url else url))
            return envelope(NAMES["v"] + "/Subscribe", CIM + "CIM_FilterCollection",
                            "<v:Subscribe><v:Delivery><v:NotifyTo>%s</v:NotifyTo></v:Delivery>%s"
                            "</v:Subscribe>" % (listener, words), (("InstanceID", filter_id),))

        def manage(kind, context, words=""):
            return envelope(NAMES["v"] + "/" + kind, CIM + "CIM_FilterCollection",
                            "<v:%s>%s</v:%s>" % (kind, words, kind), (),
                            "<v:Identifier>%s</v:Identifier>" % context)

        def event(*names):
            """Returns an event that contains the texts. The listener serves posts at the same time, so
            events that follow each other closely may change places."""
            def fits():
                return [body for body in posted if all(name in body for name in names)]

            while not fits():
                posted.append(listener.posts.get(timeout=PATIENCE)[3])
            posted.remove(body := fits()[0])
            document = xml.fromstring(checked(body.encode()))
            self.assertEqual(document.findtext("s:Header/{urn:z}Mark", "", NAMES), "7")
            return document

        posted = []
        listener, other = Listener(self), Listener(self)
        answer = ask(subscribe(listener.port, "<v:Expires>PT2H</v:Expires>"))
        self.assertEqual(values(answer, "Expires"), ["PT7200S"])
        context = values(answer, "Identifier")[0]
        self.orrin.type("battery 80")
        self.assertEqual(values(event("CIM_InstCreation"), "EstimatedChargeRemaining"), ["80"])
        self.orrin.type("battery 9")
        self.assertEqual(values(event("CIM_AlertIndication"), "Message"), ["The battery is low."])
        self.assertEqual(values(event("CIM_InstModification", "CIM_Battery"), "EstimatedChargeRemaining"), ["9"])
        self.assertIn("127.0.0.1", str(values(ask(envelope(
            ENUMERATE, CIM + "CIM_ListenerDestination",
            "<e:Enumerate><w:OptimizeEnumeration/></e:Enumerate>")), "Destination")))
        # The host's service ends, and another one starts.
        service = self.processes.pop()
        service.end()
        os.unlink(service.out)
        count, bound = (self.log().count(line) for line in ("so subscribing to " + HOST, BOUND))
        self.start_service(ready=None)
        self.logged("so subscribing to " + HOST, count + 1)
        self.assertIn("The host has gone", values(event("CIM_AlertIndication", "ORRIN1"), "Message")[0])
        for state in "8", "2":
            event("CIM_InstModification", "PowerState>%s<" % state)
        self.logged(BOUND, bound + 1)
        self.assertEqual(fault(subscribe(other.port)), ("wsman:QuotaLimit", ""))
        self.assertEqual(values(ask(manage("Renew", context, "<v:Expires>P9D</v:Expires>")), "Expires"),
                         ["PT86400S"])
        for words, expected in (("<v:Expires>x</v:Expires>", "wse:InvalidExpirationTime"),
                                ("<v:Expires>PT0S</v:Expires>", "wse:InvalidExpirationTime"),
                                ("<v:Expires>2030-01-01T00:00:00Z</v:Expires>",
                                 "wse:UnsupportedExpirationType"),
                                ("<v:Filter>x</v:Filter>", "wse:FilteringNotSupported")):
            self.assertEqual(fault(subscribe(listener.port, words))[0], expected)
        for url in ("ftp://a/", "http://", "http://a:0/", "http://a:x/", "http://u@a/", "http://a/ b",
                    "http://" + "a" * 1024):
            self.assertEqual(fault(subscribe(0, url=url))[0], "wsman:EventDeliverToUnusable", url)
        self.assertEqual(fault(subscribe(1, filter_id="x"))[0], "wsa:DestinationUnreachable")
        self.assertEqual(fault(manage("Renew", "uuid:none"))[0], "wse:UnableToRenew")
        self.assertEqual(fault(manage("Unsubscribe", "uuid:none"))[0], "wse:InvalidMessage")
        unsubscribed = self.log().count("so unsubscribing")
        ask(manage("Unsubscribe", context))
        self.logged("so unsubscribing", unsubscribed + 1)
        ask(subscribe(other.port, "<v:Expires>PT1S</v:Expires>", "orrin:alerts"))
        self.logged("so unsubscribing", unsubscribed + 2)  # it has expired
        self.assertTrue(other.posts.empty())

    def test_users_prove_themselves_and_an_operator_only_reads(self):
        place = (CIM + "CIM_ComputerSystem", self.keys)
        get, owner = envelope(GET, place[0], "", place[1]), "<p:PrimaryOwnerName>Ann</p:PrimaryOwnerName>"
        put = envelope(PUT, place[0], '<p:x xmlns:p="%s">%s</p:x>' % (place[0], owner), place[1])

        def status(text, *words):
            return int(curl("/wsman", "--no-fail", "-o", self.path("body"), "-D", self.path("head"),
                            "-w", "%{http_code}", *words, data=text.encode()))

        self.orrin.execute("user ann secret", "user bob weak operator")
        for way in ("--basic", "--digest", "--anyauth"):
            for user, text, expected in (("ann:secret", put, 200), ("bob:weak", get, 200),
                                         ("bob:weak", put, 403), ("ann:wrong", get, 401),
                                         ("eve:secret", get, 401), ("ann:", get, 401)):
                self.assertEqual(status(text, way, "--user", user), expected, (way, user))
        self.assertEqual(status(get), 401)
        self.assertIn("2.4.1.0", self.wsl("wslid", "check", WSUSER="bob", WSPASS="weak"))
        challenges = re.findall('algorithm=(.*?), nonce="(.*?)"', self.read(self.path("head")))
        self.assertEqual([name for name, _ in challenges], ["SHA-256", "MD5"])

        def digest(name, nonce, count, response=None):
            def hashed(text):
                return hashlib.new(name.replace("-", ""), text.encode()).hexdigest()
            fields = dict(username="ann", realm="orrin", nonce=nonce, uri="/wsman", algorithm=name,
                          qop="auth", nc="%08x" % count, cnonce="c")
            fields["response"] = response or hashed("%s:%s:%08x:c:auth:%s" % (
                hashed("ann:orrin:secret"), nonce, count, hashed("POST:/wsman")))
            return "Authorization: Digest " + ", ".join('%s="%s"' % row for row in fields.items())

        for name, nonce in challenges:
            for header, expected, stale in (
                    (digest(name, nonce, 1), 200, 0), (digest(name, nonce, 1), 401, 2),
                    (digest(name, nonce, 3), 200, 0), (digest(name, nonce, 2), 401, 2),
                    (digest(name, nonce, 4, "0" * 32), 401, 0),
                    (digest(name, nonce[:-1] + "x", 5), 401, 2), (digest(name, "", 6), 401, 2),
                    (digest(name, nonce, 7) + ', nc="1"', 401, 0),
                    (digest(name, nonce, 8)[:-1], 401, 0), ("Authorization: Digest", 401, 0),
                    ("Authorization: Basic !", 401, 0), ("Authorization: Odd x", 401, 0)):
                self.assertEqual(status(get, "-H", header), expected, header)
                self.assertEqual(self.read(self.path("head")).count("stale=true"), stale, header)
        self.assertIn("401, a nonce that has expired or was used before", self.orrin.text())
        self.orrin.execute("nouser ann", "nouser bob")
        self.assertEqual(status(put), 200)

    def test_damaged_requests_get_the_faults_of_the_standard(self):
        here = CIM + "CIM_ComputerSystem"
        deep = "<x>" * 10000 + "</x>" * 10000
        bomb = '<!DOCTYPE b [<!ENTITY a "%s">]>' % ("x" * 1000)
        must = '<z:Odd xmlns:z="urn:z" s:mustUnderstand="true"/>'
        good = envelope(GET, here, "", self.keys)
        for text, expected in (
                (" ", ("wsman:SchemaValidationError", "")),
                ("no XML at all", ("wsman:SchemaValidationError", "")),
                (b"\xff\xfe\x00<\x00", ("wsman:SchemaValidationError", "")),
                (bomb + good, ("wsman:SchemaValidationError", "")),
                (envelope(GET, here, deep), ("wsman:SchemaValidationError", "")),
                (good[:-9], ("wsman:SchemaValidationError", "")),
                (good.replace("2003/05", "2001/12"), ("wsman:SchemaValidationError", "")),
                (good + " " * (16 << 20), ("wsman:EncodingLimit", "ServiceEnvelopeLimit")),
                (envelope(GET, here, "", self.keys, must), ("s:MustUnderstand", "")),
                (re.sub("<a:MessageID>.*?</a:MessageID>", "", good),
                 ("wsa:MessageInformationHeaderRequired", "")),
                (envelope(GET, here, "", self.keys, "<a:Action>x</a:Action>"),
                 ("wsa:InvalidMessageInformationHeader", "")),
                (envelope(GET, here, "", self.keys, "<w:MaxEnvelopeSize>9</w:MaxEnvelopeSize>"),
                 ("wsman:EncodingLimit", "MinimumEnvelopeLimit")),
                (envelope(GET, here, "", self.keys, "<w:OperationTimeout>x</w:OperationTimeout>"),
                 ("wsa:InvalidMessageInformationHeader", "")),
                (envelope(GET, CIM + "CIM_Toaster"),
                 ("wsa:DestinationUnreachable", "InvalidResourceURI")),
                (envelope(GET, here, "", self.keys[:1]),
                 ("wsman:InvalidSelectors", "InsufficientSelectors")),
                (envelope(GET, here, "", self.keys + (("Caption", "x"),)),
                 ("wsman:InvalidSelectors", "UnexpectedSelectors")),
                (envelope(GET, here, "", self.keys + self.keys[:1]),
                 ("wsman:InvalidSelectors", "DuplicateSelectors")),
                (envelope(GET, here, "", (self.keys[0], ("Name", "another"))),
                 ("wsa:DestinationUnreachable", "")),
                (envelope("urn:x", here), ("wsa:ActionNotSupported", ""))):
            self.assertEqual(fault(text), expected, text[:300])
        self.assertEqual(values(ask(good), "Name"), [self.computer])
        self.assertIn(", fault wsa:ActionNotSupported", self.orrin.text())


if __name__ == "__main__":
    run()
