"""The module against a running daemon."""

import os
import threading
import unittest

from device import Device

import vigila

ADMINISTRATORS, VIEWERS = 1, 8


device: Device


def setUpModule() -> None:
    global device
    device = Device()  # one for all: the client library reads its configuration once
    unittest.addModuleCleanup(device.remove)
    device.start()
    with vigila.Accounts() as accounts:
        accounts.add_user("admin", ADMINISTRATORS, "admin's secret")
        accounts.add_user("view", VIEWERS, "view's s\u00ebcret")


class OnADevice(unittest.TestCase):
    def setUp(self) -> None:
        self.client = self.enterContextOf(vigila.Client())

    def enterContextOf(self, context):  # enterContext of newer versions
        self.addCleanup(context.__exit__, None, None, None)
        return context.__enter__()

    def logon(self, name: str, share: bool = False) -> str:
        password = {"admin": "admin's secret", "view": "view's s\u00ebcret"}[name]
        with vigila.Client() as client:  # one that has not asked before, and so asks the service
            return client.authenticate(name, password, share=share)


class Logons(OnADevice):
    def test_a_logon_answers_a_token(self) -> None:
        token = self.logon("admin")
        self.assertRegex(token, "^[0-9A-F]{8}$")
        self.assertTrue(self.client.is_authenticated(token))
        self.assertEqual(self.client.user_of(token), "admin")

    def test_text_and_its_bytes_are_the_same(self) -> None:
        token = self.client.authenticate(b"view", "view's s\u00ebcret".encode())
        self.assertTrue(self.client.authorize(token.encode(), b"/"))

    def test_a_shared_logon_shares_the_session(self) -> None:
        first = self.logon("admin", share=True)
        self.assertEqual(self.logon("admin", share=True), first)
        self.assertNotEqual(self.logon("admin"), first)

    def test_a_wrong_password_is_refused(self) -> None:
        for name, password in (("admin", "wrong"), ("no one", "wrong"), ("admin", "")):
            with self.assertRaises((vigila.LogonRefused, vigila.Unavailable)):
                self.client.authenticate(name, password)
        with self.assertRaises(vigila.LogonRefused) as refusal:
            self.client.authenticate("no one", "wrong")
        self.assertIs(type(refusal.exception), vigila.LogonRefused)

    def test_digest_logons_are_refused_as_others_are(self) -> None:
        nonce = self.client.get_nonce()
        self.assertEqual(len(nonce), 32)
        with self.assertRaises(vigila.LogonRefused):
            self.client.authenticate_http("admin", nonce, "0" * 32, "0" * 32, nc="1")
        with self.assertRaises(vigila.LogonRefused):
            self.client.authenticate_wsse("admin", "AAAA", "AAAA", "2000-01-01T00:00:00Z")

    def test_an_account_that_is_not_locked_can_be_unlocked(self) -> None:
        with vigila.Administration() as administration:
            self.assertFalse(administration.get_account("view")["Account"]["Locked"])
            self.assertFalse(administration.unlock_account("view")["WasLocked"])


class Access(OnADevice):
    def test_what_is_not_in_memory_has_to_be_asked(self) -> None:
        token = self.logon("admin")
        self.assertIsNone(self.client.try_authorize(token, "/try"))
        self.assertIsNone(self.client.try_is_protected("/inject.cgi"))
        # Memory holds nothing before the client hears of changes, and not for long.
        known: set = set()
        while known != {(True, True)}:
            self.assertTrue(self.client.authorize(token, "/try"))
            self.assertTrue(self.client.is_protected("/inject.cgi"))
            known = {
                (self.client.try_authorize(token, "/try"), self.client.try_is_protected("/inject.cgi"))
            }

    def test_a_session_ends_everywhere_when_it_is_logged_out(self) -> None:
        token = self.logon("admin")
        self.assertTrue(self.client.authorize(token, "/inject.cgi"))
        self.client.logout(token)
        self.assertFalse(self.client.authorize(token, "/inject.cgi"))
        self.assertEqual(self.client.user_of(token), "")

    def test_paths_and_permissions_are_lists_of_texts(self) -> None:
        of_admin = self.client.allowed_paths(self.logon("admin"))
        of_viewer = self.client.allowed_paths(self.logon("view"))
        self.assertLess(len(of_viewer), len(of_admin))
        self.assertTrue(all(isinstance(path, str) for path in of_admin))
        for permission in self.client.allowed_permissions(self.logon("view")):
            self.assertRegex(permission, "^[0-9a-fA-F-]{36}$")

    def test_zero_bytes_are_refused_where_they_would_end_the_text(self) -> None:
        for call in (
            lambda: self.client.authorize("NO_TOKEN", "/a\0b"),
            lambda: self.client.is_protected(b"/a\0b"),
            lambda: self.client.authenticate_wsse("a\0b", "", "", ""),
        ):
            with self.assertRaises(ValueError):
                call()

    def test_a_closed_client_says_so(self) -> None:
        self.client.close()
        self.client.close()
        with self.assertRaises(ValueError):
            self.client.is_protected("/")

    def test_threads_ask_at_the_same_time(self) -> None:
        token, granted = self.logon("admin"), []
        threads = [
            threading.Thread(
                target=lambda path=f"/{number}": granted.append(
                    self.client.authorize(token, path) and self.client.user_of(token) == "admin"
                )
            )
            for number in range(8)
        ]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(granted, [True] * 8)


class Administering(OnADevice):
    def setUp(self) -> None:
        super().setUp()
        self.administration = self.enterContextOf(vigila.Administration())
        self.accounts = self.enterContextOf(vigila.Accounts())

    def test_answers_are_the_members_of_the_json(self) -> None:
        answer = self.administration.get_account("admin")
        self.assertEqual(answer["Account"]["GroupName"], "admins")
        self.assertFalse(answer["Account"]["Locked"])
        names = [account["Name"] for account in self.administration.accounts()]
        self.assertEqual(names, sorted(names))
        self.assertLessEqual({"admin", "view", "nobody"}, set(names))

    def test_listings_go_on_over_pages(self) -> None:
        self.administration.end_sessions("*")
        tokens = [self.logon("view") for _ in range(3)]
        first = self.administration.get_sessions("view", limit=2)
        self.assertEqual(len(first["Sessions"]), 2)
        rest = self.administration.get_sessions("view", first["Next"], 2)
        self.assertEqual(len(rest["Sessions"]), 1)
        listed = [session["Id"] for session in self.administration.sessions("view")]
        self.assertEqual(len(set(listed)), 3)
        self.assertTrue(set(listed).isdisjoint(tokens))
        self.administration.end_session(listed[0])
        self.assertEqual(len(list(self.administration.sessions("view"))), 2)
        self.assertEqual(self.administration.end_sessions("view")["Ended"], 2)

    def test_a_refusal_has_the_code_and_says_what_it_means(self) -> None:
        with self.assertRaises(vigila.Refused) as refusal:
            self.administration.get_account("no one")
        self.assertEqual(refusal.exception.code, 10)
        self.assertEqual(str(refusal.exception), "GetAccount: there is no such user (code 10)")
        with self.assertRaises(vigila.Refused) as refusal:
            self.accounts.add_user("admin", VIEWERS, "a secret")
        self.assertEqual(refusal.exception.code, 4)

    def test_a_viewers_token_opens_nothing_but_its_own(self) -> None:
        with vigila.Administration(self.logon("view")) as own:
            self.assertEqual(own.get_account("view")["Account"]["Name"], "view")
            own.set_session_source("192.0.2.1")
            with self.assertRaises(vigila.AccessDenied):
                own.get_accounts()

    def test_accounts_come_and_go(self) -> None:
        self.accounts.add_user("new", VIEWERS, "first secret")
        self.accounts.validate_password("new", "", "second secret")
        self.accounts.modify_users([{"Name": "new", "Group": VIEWERS, "Password": "second secret"}])
        token = self.client.authenticate("new", "second secret")
        self.accounts.invalidate("new")
        self.assertFalse(self.client.is_authenticated(token))
        days, expires = self.accounts.get_expiration("new")
        self.assertEqual((days, expires), (2147483647, ""))
        self.accounts.delete_users(["new"])
        self.assertNotIn("new", [user["Name"] for user in self.accounts.get_users()])

    def test_passphrases_come_and_go(self) -> None:
        identifier = self.accounts.add_passphrase(b"\xff\0 any bytes", "alias")
        self.assertEqual(
            os.fsencode(self.accounts.get_passphrase(identifier)), b"\xff\0 any bytes"
        )
        self.assertIn(identifier, [entry["ID"] for entry in self.accounts.get_passphrases()])
        self.assertTrue(self.accounts.delete_passphrase(identifier))
        self.assertFalse(self.accounts.delete_passphrase(identifier))

    def test_rules_are_read_and_set(self) -> None:
        with vigila.Rules() as rules:
            before = rules.get_access_rule("/jpeg*")
            self.assertIsNotNone(before)
            effect = self.administration.get_rule_effect("/jpeg*", "@admins")
            self.assertIn("Loses", effect)
            self.assertTrue(rules.set_access_rule("/jpeg*", "@admins"))
            self.assertEqual(rules.get_access_rule("/jpeg*"), "@admins")
            self.assertFalse(self.administration.explain_account("view", "/jpeg/1")["Granted"])
            self.assertTrue(rules.set_access_rule("/jpeg*", before))
            self.assertIsNone(rules.get_access_rule("/no such rule"))


class Outages(OnADevice):
    def test_every_object_goes_on_when_the_service_is_back(self) -> None:
        with vigila.Administration() as administration:
            administration.get_accounts()
            device.stop()
            with self.assertRaises(vigila.Unavailable) as outage:
                administration.get_accounts()
            self.assertRegex(str(outage.exception), "cannot connect to .*/run/tevra.SecurityProvider")
            with self.assertRaises(vigila.Unavailable):
                self.client.authenticate("admin", "admin's secret")
            self.assertFalse(self.client.authorize("NO_TOKEN", "/"))
            device.start()
            administration.get_accounts()
            self.logon("admin")

    def test_a_child_of_fork_has_a_connection_of_its_own(self) -> None:
        with vigila.Administration() as administration:
            administration.get_accounts()
            child = os.fork()
            if child == 0:
                try:
                    administration.get_accounts()
                    os._exit(0)
                finally:
                    os._exit(1)
            administration.get_accounts()
            self.assertEqual(os.waitpid(child, 0)[1], 0)
            administration.get_accounts()

    def test_the_broker_is_named_where_the_service_is_on_one(self) -> None:
        with vigila.Accounts(vigila.Configuration(transport="broker")) as accounts:
            with self.assertRaisesRegex(vigila.Unavailable, "D-Bus broker"):
                accounts.get_users()


if __name__ == "__main__":
    unittest.main()
