# Power actions: the firmware's command is carried out once the answer has been sent. On Linux it
# adds a line to power.txt and does nothing else.
import re
import socket

from stewardry_lab import LabTest, curl, run, until

SERVICE = "http://schemas.dmtf.org/wbem/wscim/1/cim-schema/2/CIM_PowerManagementService"
REQUEST = """<s:Envelope xmlns:s="http://www.w3.org/2003/05/soap-envelope"
 xmlns:a="http://schemas.xmlsoap.org/ws/2004/08/addressing"
 xmlns:w="http://schemas.dmtf.org/wbem/wsman/1/wsman.xsd" xmlns:p="%s"><s:Header>
 <a:Action s:mustUnderstand="true">%s/RequestPowerStateChange</a:Action>
 <a:MessageID>uuid:7</a:MessageID><w:ResourceURI>%s</w:ResourceURI><w:SelectorSet>
 <w:Selector Name="SystemCreationClassName">CIM_ComputerSystem</w:Selector>
 <w:Selector Name="SystemName">%s</w:Selector>
 <w:Selector Name="CreationClassName">CIM_PowerManagementService</w:Selector>
 <w:Selector Name="Name">power</w:Selector></w:SelectorSet></s:Header><s:Body><p:RequestPowerStateChange_INPUT>
 <p:PowerState>{}</p:PowerState></p:RequestPowerStateChange_INPUT></s:Body></s:Envelope>""" % (
     SERVICE, SERVICE, SERVICE, socket.gethostname())
SHUT_DOWN = "InitiateSystemShutdownExA message=none timeout=0 force=true reboot=%s reason=0x40000"
SUSPEND = "SetSuspendState hibernate=%s force=true wakeEventsDisabled=false"
# The frame's name, the CIM PowerState, the line in power.txt, the log lines in their order.
ACTIONS = (
    ("REBOOT", 10, SHUT_DOWN % "true", ("Reboot Command received", "Reboot initiated")),
    ("SHUTDOWN", 8, SHUT_DOWN % "false", ("Shutdown Command received", "Shutdown initiated")),
    ("HIBERNATE", 7, SUSPEND % "true",
     ("Hibernate Command received", "Delaying Hibernate for 2 seconds", "Hibernate initiated")),
    ("SLEEP", 4, SUSPEND % "false",
     ("Sleep Command received", "Delaying Sleep for 2 seconds", "Sleep initiated")),
)


def request(state):
    """Returns the return value and the message id of the answer."""
    answer = curl("/wsman", data=REQUEST.format(state).encode()).decode()
    return re.search("ReturnValue>(.+?)<", answer)[1], re.search("RelatesTo>(.+?)<", answer)[1]


class Power(LabTest):
    def test_each_action_follows_its_answer(self):
        for frame, state, act, lines in ACTIONS:
            with self.case(frame):
                self.start_both()
                until(lambda: b'"os":{' in curl(), "the host's report, which has its name")
                self.assertEqual(request(state), ("0", "uuid:7"))
                until(lambda: self.read(self.path("power.txt")).endswith("\n"), "the action")
                # Any reply within the two seconds of a delay requests the action once more.
                self.assertEqual(set(self.read(self.path("power.txt")).splitlines()), {act})
                self.orrin.saw_all(["firmware > host  %s, payload 0" % frame, "DASH_DATA"])
                self.assert_order(self.log(), lines)


if __name__ == "__main__":
    run()
