"""Power actions: what the firmware asks for is done once the answer has left, and on this side of
the lab only in power.txt."""
import re
import unittest

from stewardry_lab import LabTest, connect, curl, receive, run, until

SERVICE = "http://schemas.dmtf.org/wbem/wscim/1/cim-schema/2/CIM_PowerManagementService"
REQUEST = """<s:Envelope xmlns:s="http://www.w3.org/2003/05/soap-envelope"
 xmlns:a="http://schemas.xmlsoap.org/ws/2004/08/addressing" xmlns:p="{0}"><s:Header>
 <a:Action s:mustUnderstand="true">{0}/RequestPowerStateChange</a:Action>
 <a:MessageID>uuid:e2e-{1}</a:MessageID></s:Header><s:Body><p:RequestPowerStateChange_INPUT>
 <p:PowerState>{1}</p:PowerState></p:RequestPowerStateChange_INPUT></s:Body></s:Envelope>"""

SHUT_DOWN = "InitiateSystemShutdownExA message=none timeout=0 force=true reboot=%s reason=0x40000"
SUSPEND = "SetSuspendState hibernate=%s force=true wakeEventsDisabled=false"
# word at orrin's prompt, frame's name, CIM PowerState, what becomes of it, log lines in order
ACTIONS = (
    ("reboot", "REBOOT", 10, SHUT_DOWN % "true", ("Reboot Command received", "Reboot initiated")),
    ("shutdown", "SHUTDOWN", 8, SHUT_DOWN % "false",
     ("Shutdown Command received", "Shutdown initiated")),
    ("hibernate", "HIBERNATE", 7, SUSPEND % "true",
     ("Hibernate Command received", "Delaying Hibernate for 2 seconds", "Hibernate initiated")),
    ("sleep", "SLEEP", 4, SUSPEND % "false",
     ("Sleep Command received", "Delaying Sleep for 2 seconds", "Sleep initiated")),
)


class Power(LabTest):
    def acted(self, count):
        until(lambda: len(self.power_lines()) >= count, "power line %d" % count)
        return self.power_lines()

    def test_the_console_isnt_answered_or_the_host_not_acted_on(self):
        for word, frame, state, act, lines in ACTIONS:
            with self.case(word):
                self.start_both()
                answer = curl("/wsman", data=REQUEST.format(SERVICE, state).encode()).decode()
                self.assertIn("<p:ReturnValue>0</p:ReturnValue>", answer)
                self.assertIn("<a:RelatesTo>uuid:e2e-%d</a:RelatesTo>" % state, answer)
                # A reply that is written within the two seconds of a delay, as the one to the
                # peer's close_notify, asks for the action once more.
                self.acted(max(self.log().count("Delaying"), 1))
                self.assertEqual(set(self.power_lines()), {act})
                self.orrin.saw_all(["firmware > host  %s, payload 0" % frame, "DASH_DATA"])
                self.assert_order(self.log(), lines)

    def test_a_state_without_a_command_acts(self):
        self.start_both()
        for state in ("6", "9", "99999", "", "8x"):
            with self.subTest(state):
                answer = curl("/wsman", data=REQUEST.format(SERVICE, state).encode()).decode()
                self.assertRegex(answer, r"<p:ReturnValue>[1-9]\d*</p:ReturnValue>")
        self.assertEqual(self.power_lines(), [])
        self.assertNotIn("Command received", self.log())

    def test_a_command_acts_before_the_reply_or_with_the_wrong_one(self):
        self.start_both()
        self.orrin.tell("power shutdown", "power reboot", "dash lost")
        self.logged("Socket is closed")
        peer = connect()
        self.logged("Exiting HTTPS Callback")
        self.orrin.tell("frame 0800")  # no payload: no reply has gone out
        self.orrin.tell("unknown 0x22")
        self.logged("Unknown Command received 0x22")  # the reader has passed all of it
        self.assertEqual(self.power_lines(), [])
        self.orrin.tell("dash reply")
        self.assertEqual(receive(peer, 5), b"reply")
        self.assertEqual(self.acted(1), [SHUT_DOWN % "true"])
        self.orrin.tell("dash again")
        self.assertEqual(receive(peer, 5), b"again")
        self.logged(" Size written is 5,requested 5", 2)
        self.assertEqual(self.power_lines(), [SHUT_DOWN % "true"])
        peer.close()

    def test_a_later_command_doesnt_replace_a_pending_one(self):
        self.start_both()
        peer = connect()
        self.logged("Exiting HTTPS Callback")
        self.orrin.tell("power shutdown", "power hibernate", "dash reply")
        self.assertEqual(receive(peer, 5), b"reply")
        self.assertEqual(self.acted(1), [SUSPEND % "true"])
        self.assertNotIn("Shutdown initiated", self.log())
        peer.close()

    def test_a_reboot_beside_dash_waits_or_takes_the_pending_option(self):
        self.start_both()
        self.orrin.tell("power shutdown", "power reboot-nondash")
        self.assertEqual(self.acted(1), [SHUT_DOWN % "true"])
        self.assert_order(self.log(), ["Shutdown Command received", "Reboot_Command_Nondash",
                                       "Reboot initiated"])
        curl("/")  # any reply sets off what is still noted
        self.assertEqual(self.acted(2)[1], SHUT_DOWN % "false")
        self.assertIsNone(re.search("Returned error|Power option failed", self.log()))


if __name__ == "__main__":
    run()
