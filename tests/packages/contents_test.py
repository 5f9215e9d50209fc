#!/usr/bin/env python3
"""What packaging/make-packages makes: contents, sums, list of contents, signatures; the same bytes in any folder.

usage: contents_test.py BUILD SCRATCH CHECKOUT OBJCOPY
"""
import fnmatch
import functools
import hashlib
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import unittest
import zipfile

import jsonschema

BUILD, SCRATCH, CHECKOUT, OBJCOPY = (pathlib.Path(word) for word in sys.argv[1:5])
TOOL = CHECKOUT / "packaging/make-packages"
BASE = "CorvelToolKit-3.4.5-x64"


def run(*command, **variables):
    return subprocess.run([str(word) for word in command], check=True, capture_output=True, text=True,
                          env={**os.environ, **variables}).stdout


def installation(name):
    folder = SCRATCH / name / "installed"
    for component in ("runtime", "development", "symbols"):
        (folder / component).mkdir(parents=True)
        run("cmake", "--install", BUILD, "--component", component, "--prefix", folder / component)
    # The build for tests leaves them where they are.
    (folder / "symbols/bin").mkdir()
    for program in [*folder.glob("runtime/bin/*.exe"), *folder.glob("runtime/bin/*.dll")]:
        run(OBJCOPY, "--only-keep-debug", program, folder / "symbols/bin" / f"{program.name}.debug",
            SOURCE_DATE_EPOCH="946684800")
    (folder / "package.json").write_text(json.dumps(
        {"name": "CorvelToolKit", "library_version": "1.8.1", "package_version": "3.4.5"}))
    return folder


def packages(name, *options, tool=TOOL):
    folder = SCRATCH / name / "packages"
    run(tool, installation(name), folder, *options)
    return folder


def digests(folder):
    return {path.name: hashlib.sha256(path.read_bytes()).hexdigest() for path in folder.iterdir()}


def files_below(folder):
    return {path.relative_to(folder).as_posix(): path.read_bytes() for path in folder.rglob("*") if path.is_file()}


def table(installer, name):
    """The rows of a table, as lists of texts."""
    return [line.rstrip("\r").split("\t") for line in run("msiinfo", "export", installer, name).splitlines()[3:]]


def package_code(installer):
    return re.search(r"(?:Revision number|UUID)[^{]*(\{.*\})", run("msiinfo", "suminfo", installer))[1]


class Word(str):
    """A property or a text in a condition of an installer."""
    def __matmul__(self, other):
        return other in self

    def __xor__(self, other):
        return other.lower() in self.lower()

    def __mod__(self, other):
        return other.lower() == self.lower()

    def __ge__(self, number):
        return self.isdigit() and int(self) >= number


def holds(condition, properties):
    """What an installer makes of a condition."""
    operators = {"AND": "and", "OR": "or", "NOT": "not", "=": "==", "<>": "!=", "><": "@", "~><": "^", "~=": "%", ">=": ">="}

    def translated(match):
        word = match[0]
        if word in operators:
            return f" {operators[word]} "
        if word[0] in "()0123456789":
            return word
        return f"Word({word})" if word[0] == '"' else f"Word(properties.get({word!r}, ''))"

    pattern = r'"[^"]*"|~?><|<>|~=|>=|[=()]|\w+'
    if re.sub(pattern, "", condition).strip():
        raise ValueError(condition)
    return bool(eval(re.sub(pattern, translated, condition), {"Word": Word, "properties": properties}))


class Refused(Exception):
    pass


class Run:
    """What an installer does besides its tables, by these tables, on a PC that is described by properties."""
    FILES = "- files -"
    ASSIGNS, REFUSES = 51, 19
    DEFERRED, IN_ROLLBACK = 1024, 256

    def __init__(self, installer, **properties):
        self.properties = properties
        self.steps, self.steps_back = [], []
        actions = {row[0]: (int(row[1]), row[2], row[3]) for row in table(installer, "CustomAction")}
        rows = sorted(table(installer, "InstallExecuteSequence"), key=lambda row: int(row[2]))
        for name, condition, _ in rows:
            if name == "InstallFiles":
                self.steps.append(self.FILES)
            if name in actions and (not condition or holds(condition, properties)):
                self._act(*actions[name])

    def _act(self, kind, source, target):
        text = " ".join(re.sub(r"\[(\w+)\]", lambda match: self.properties.get(match[1], ""), target).split())
        if kind == self.ASSIGNS:
            self.properties[source] = text
        elif kind == self.REFUSES:
            raise Refused(text)
        elif kind & self.IN_ROLLBACK:
            self.steps_back.insert(0, text)
        elif kind & self.DEFERRED:
            self.steps.append(text)


@functools.cache
def plain_packages():
    return packages("one")


class Contents(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.made = plain_packages()

    def test_the_same_files_in_another_folder_give_the_same_bytes(self):
        self.assertEqual(digests(self.made), digests(packages("another place")))

    def test_sums_are_those_of_the_files(self):
        sums = dict(reversed(line.split("  ")) for line in (self.made / "SHA256SUMS").read_text().splitlines())
        found = digests(self.made)
        del found["SHA256SUMS"]
        self.assertEqual(sums, found)

    def test_zip_holds_what_a_user_and_an_integrator_need(self):
        with zipfile.ZipFile(self.made / f"{BASE}.zip") as archive:
            names = set(archive.namelist())
        for name in ("bin/CorvelToolKit.dll", "bin/corvel_service.exe", "include/corvel/toolkit/toolkit.h",
                     "lib/cmake/CorvelToolKit/CorvelToolKitConfig.cmake", "examples/CorvelConfig.ini",
                     "THIRD-PARTY-NOTICES.txt"):
            self.assertIn(f"{BASE}/{name}", names)

    def test_list_of_contents_names_each_file_and_all_that_is_linked_in(self):
        document = json.loads((self.made / f"{BASE}.spdx.json").read_text())
        self.assertEqual(document["spdxVersion"], "SPDX-2.3")
        runtime, development = (SCRATCH / "one/installed" / name for name in ("runtime", "development"))
        for file in document["files"]:
            root = development if file["comment"] == "in the ZIP alone" else runtime
            data = (root / file["fileName"]).read_bytes()
            sums = {sum["algorithm"]: sum["checksumValue"] for sum in file["checksums"]}
            self.assertEqual(sums["SHA256"], hashlib.sha256(data).hexdigest())
        with zipfile.ZipFile(self.made / f"{BASE}.zip") as archive:
            self.assertEqual(sorted(f"{BASE}/{file['fileName'][2:]}" for file in document["files"]), sorted(archive.namelist()))
        known = {package["name"].split(" ")[0] for package in document["packages"]}
        self.assertEqual(known, {"CorvelToolKit", "GCC", "mingw-w64", "CLI11", "JSON"})
        identities = [part["SPDXID"] for part in document["packages"] + document["files"]]
        self.assertEqual(len(identities), len(set(identities)))
        for relation in document["relationships"]:
            for end in ("spdxElementId", "relatedSpdxElement"):
                self.assertIn(relation[end], identities + ["SPDXRef-DOCUMENT"])

    def test_list_of_contents_tells_the_compiler_by_the_version_of_its_runtime(self):
        document = json.loads((self.made / f"{BASE}.spdx.json").read_text())
        parts = {part["name"].split(" ")[0]: part for part in document["packages"]}
        self.assertIn(parts["GCC"]["versionInfo"], parts["CorvelToolKit"]["comment"])

    def test_an_owners_licence_is_in_all_that_tells_of_one(self):
        folder = installation("licence")
        for text in ("", "Terms of the owner\n"):
            with self.subTest(text):
                (folder / "runtime/LICENSE.txt").unlink(missing_ok=True)
                if text:
                    (folder / "runtime/LICENSE.txt").write_text(text)
                made = SCRATCH / "licence/packages"
                run(TOOL, folder, made)
                with zipfile.ZipFile(made / f"{BASE}.zip") as archive:
                    self.assertEqual(f"{BASE}/LICENSE.txt" in archive.namelist(), bool(text))
                self.assertEqual("LICENSE.txt" in run("msiextract", "-l", made / f"{BASE}.msi"), bool(text))
                self.assertEqual("as soon as there is one" in (made / "THIRD-PARTY-NOTICES.txt").read_text(), not text)
                document = json.loads((made / f"{BASE}.spdx.json").read_text())
                own, = (part for part in document["packages"] if part["name"] == "CorvelToolKit")
                known = {licence["licenseId"]: licence["extractedText"]
                         for licence in document.get("hasExtractedLicensingInfos", [])}
                self.assertEqual(known, {"LicenseRef-CorvelToolKit": text} if text else {})
                self.assertEqual(own["licenseDeclared"], "LicenseRef-CorvelToolKit" if text else "NOASSERTION")

    def test_notices_hold_the_terms_of_all_that_is_linked_in(self):
        text = (self.made / "THIRD-PARTY-NOTICES.txt").read_text()
        for words in ("GCC RUNTIME LIBRARY EXCEPTION", "winpthreads", "Henry Schreiner", "Niels Lohmann"):
            self.assertIn(words.lower(), text.lower())

    def test_installer_holds_the_files_and_no_others(self):
        run("msiextract", "-C", SCRATCH / "extracted", self.made / f"{BASE}.msi")
        held = files_below(next((SCRATCH / "extracted").rglob("THIRD-PARTY-NOTICES.txt")).parent)
        expected = files_below(SCRATCH / "one/installed/runtime")
        self.assertEqual(sorted(held), sorted(expected))
        self.assertEqual([name for name in held if held[name] != expected[name]], [])
        self.assertEqual(len(held), len(files_below(SCRATCH / "extracted")))

    def test_there_are_no_packages_without_symbols_of_each_program(self):
        folder = installation("without")
        for spoil in (pathlib.Path.unlink, pathlib.Path.touch):
            spoil(folder / "symbols/bin/corvel_service.exe.debug")
            with self.assertRaises(subprocess.CalledProcessError) as refusal:
                run(TOOL, folder, SCRATCH / "without/packages")
            self.assertIn("no symbols of corvel_service.exe", refusal.exception.stderr)

    def test_an_installer_with_other_tables_is_another_package(self):
        code = package_code(self.made / f"{BASE}.msi")
        for name, file, old, new in (("told", "packaging/installer.wxs", 'Title="Corvel Toolkit"', 'Title="Another"'),
                                     ("acts", "packaging/make-packages", 'uninstall --purge', 'uninstall'),
                                     ("leaves", "hosts/service/left_behind.h", "ZEMO_DownloadDll", "OtherDll")):
            with self.subTest(file):
                other = SCRATCH / name / "checkout"
                for part in ("packaging/installer.wxs", "packaging/make-packages", "hosts/service/left_behind.h"):
                    (other / part).parent.mkdir(parents=True, exist_ok=True)
                    shutil.copy(CHECKOUT / part, other / part)
                text = (other / file).read_text()
                self.assertIn(old, text)
                (other / file).write_text(text.replace(old, new))
                made = packages(name, tool=other / "packaging/make-packages")
                self.assertNotEqual(package_code(made / f"{BASE}.msi"), code)

    def test_an_owners_command_signs_programs_and_installer(self):
        key, certificate = SCRATCH / "key.pem", SCRATCH / "certificate.pem"
        run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=Test", "-days", "2",
            "-addext", "extendedKeyUsage=codeSigning", "-keyout", key, "-out", certificate)
        command = SCRATCH / "sign"
        command.write_text('#!/bin/sh\nset -eu\n'
                           f'osslsigncode sign -certs "{certificate}" -key "{key}" -in "$1" -out "$1.signed"\n'
                           'mv "$1.signed" "$1"\n')
        command.chmod(0o755)
        made = packages("signed", "--sign", command)
        for file in [*(SCRATCH / "signed/installed/runtime/bin").iterdir(), made / f"{BASE}.msi"]:
            self.assertIn("Signature verification: ok", run("osslsigncode", "verify", "-CAfile", certificate, "-in", file))

    def test_there_are_no_packages_when_a_command_fails_to_sign(self):
        for name, words in (("unsigned", "false"), ("half signed", "sh -c 'case $1 in *.msi) exit 1;; esac' sign")):
            with self.subTest(name), self.assertRaises(subprocess.CalledProcessError):
                packages(name, "--sign", words)
            self.assertEqual([path.name for path in (SCRATCH / name).glob("packages*")
                              if (path / f"{BASE}.zip").exists() and path.name == "packages"], [])

    def test_says_how_a_management_system_knows_the_product(self):
        facts = json.loads((self.made / "package.json").read_text())
        properties = dict(table(self.made / f"{BASE}.msi", "Property"))
        schema = json.loads((CHECKOUT / "docs/package.schema.json").read_text())
        jsonschema.validate(facts, schema, cls=jsonschema.Draft7Validator)
        self.assertEqual((facts["product_code"], facts["upgrade_code"], facts["package_version"]),
                         (properties["ProductCode"], properties["UpgradeCode"], properties["ProductVersion"]))

    def test_a_command_is_found_from_where_its_caller_stands(self):
        """By scripts/package, which builds in its checkout; what it calls is played here."""
        checkout, caller = SCRATCH / "called/checkout", SCRATCH / "called/caller"
        for folder in (checkout / "scripts", checkout / "packaging", checkout / "programs", checkout / "build/package/package",
                       caller):
            folder.mkdir(parents=True)
        shutil.copy(CHECKOUT / "scripts/package", checkout / "scripts")
        (checkout / "build/package/package/package.json").write_text("{}")
        (checkout / "build/package/installed").mkdir()
        for name, text in (("scripts/setup", "true"), ("programs/cmake", "mkdir -p build/package/installed"),
                           ("packaging/make-packages", 'pwd; printf "%s\\n" "$@"')):
            (checkout / name).write_text(f"#!/bin/sh\n{text}\n")
            (checkout / name).chmod(0o755)
        said = subprocess.run([checkout / "scripts/package", "--output", "made", "--sign", "./sign"], cwd=caller, check=True,
                              capture_output=True, text=True,
                              env={**os.environ, "PATH": f"{checkout / 'programs'}:{os.environ['PATH']}"}).stdout
        self.assertEqual(said.splitlines()[:5], [str(caller.resolve()), str((checkout / "build/package/installed").resolve()),
                                                 str((caller / "made").resolve()), "--sign", "./sign"])


BIN = "C:\\Programs\\bin\\"
# As Windows Installer reads a text of that kind.
BY_HAND = {"FORMERSERVICE": f'#%"{BIN}corvel_service.exe" --restart-when-stuck', "FORMERSTART": "#3",
           "FORMERCONFIGURATION": BIN + "CorvelConfig.ini"}
INSTALLED = {"FORMERSERVICE": f'#%"{BIN}corvel_service.exe"', "FORMERSTART": "#2",
             "FORMERCONFIGURATION": BIN + "CorvelConfig.ini", "KEPTSTARTTYPE": "auto", "KEPTSERVICEOPTIONS": "none",
             "KEPTREGISTRYKEY": "KEPT", "KEPTBUS": "pcie", "KEPTINSTALLFOLDER": "C:\\Programs\\"}
CONFIGURE = 'configure --remember --registry-key "K" --bus usb --images "I."'
TAKE_AWAY = f'uninstall --unless-flashing --programs "{BIN}."'
TAKE_ALL_AWAY = f'uninstall --unless-flashing --release-key --programs "{BIN}."'


class Installer(unittest.TestCase):
    """What Wine shows of it does installer_test; the rest is told by its tables alone."""

    @classmethod
    def setUpClass(cls):
        cls.file = plain_packages() / f"{BASE}.msi"

    def run_of(self, **properties):
        return Run(self.file, **{"BINFOLDER": BIN, "REGISTRYKEY": "K", "BUS": "usb", "IMAGEFOLDER": "I", "Privileged": "1",
                                  "INSTALLFOLDER": "C:\\Programs\\", **properties})

    def test_first_installation_leaves_nothing_when_it_fails(self):
        first = self.run_of()
        self.assertEqual(first.steps, [TAKE_AWAY, Run.FILES, CONFIGURE, "install --start auto", "start"])
        self.assertEqual(first.steps_back, [f'uninstall --purge --programs "{BIN}."'])

    def test_what_it_is_told_of_the_service_is_given_to_it(self):
        told = self.run_of(STARTTYPE="demand", SERVICEOPTIONS="--restrict")
        self.assertEqual(told.steps[-1], "install --start demand --restrict")

    def test_deployment_by_hand_is_taken_over_and_put_back_when_that_fails(self):
        over = self.run_of(**BY_HAND)
        install = "install --start demand --restart-when-stuck"
        self.assertEqual(over.steps, [TAKE_AWAY, Run.FILES, CONFIGURE, install])
        self.assertEqual(over.steps_back, ["uninstall", install])

    def test_service_that_started_by_itself_and_was_restricted_is_put_back_so(self):
        over = self.run_of(**{**BY_HAND, "FORMERSTART": "#2", "FORMERIDENTITY": "#1"}, STARTTYPE="demand",
                           SERVICEOPTIONS="none")
        self.assertEqual(over.steps[-1], "install --start demand")
        self.assertEqual(over.steps_back,
                         ["uninstall", "install --start auto --restart-when-stuck --restrict", "start"])

    def test_configuration_without_a_service_stays_too_when_an_installation_fails(self):
        self.assertEqual(self.run_of(FORMERCONFIGURATION=BIN + "CorvelConfig.ini").steps_back, ["uninstall"])

    def test_service_of_another_folder_is_left_alone(self):
        with self.assertRaisesRegex(Refused, "behind the #% here: #%E:.*corvel_service uninstall"):
            self.run_of(**{**BY_HAND, "FORMERSERVICE": "#%E:\\Tools\\corvel_service.exe"})
        self.run_of(**{**BY_HAND, "FORMERSERVICE": BY_HAND["FORMERSERVICE"].lower()})

    def test_upgrade_takes_over_what_was_told_and_puts_back_what_was_there(self):
        upgrade = self.run_of(**INSTALLED, WIX_UPGRADE_DETECTED="{1}")
        self.assertEqual(upgrade.steps, [TAKE_AWAY, Run.FILES, CONFIGURE, "install --start auto", "start"])
        self.assertEqual(upgrade.steps_back, ["uninstall", "install --start auto", "start"])
        old = self.run_of(**INSTALLED, Installed="1", REMOVE="ALL", UPGRADINGPRODUCTCODE="{2}")
        self.assertEqual(old.steps, [TAKE_AWAY, Run.FILES])
        self.assertEqual(old.steps_back, ["install --start auto", "start"])
        self.assertNotIn("LEFTOVERS", old.properties)

    def test_upgrade_goes_into_no_other_folder(self):
        upgrade = {**INSTALLED, "WIX_UPGRADE_DETECTED": "{1}"}
        with self.assertRaisesRegex(Refused, r"installed in C:.Programs.* and stays there"):
            self.run_of(**upgrade, INSTALLFOLDER="D:\\Others\\")
        self.run_of(**upgrade, INSTALLFOLDER="c:\\programs\\")

    def test_what_was_told_of_the_configuration_holds_too(self):
        """Where somebody has deleted it."""
        repair = self.run_of(**INSTALLED, Installed="1", REGISTRYKEY="", BUS="")
        self.assertIn(CONFIGURE.replace('"K"', '"KEPT"').replace("usb", "pcie"), repair.steps)
        first = self.run_of(REGISTRYKEY="", BUS="")
        self.assertIn(CONFIGURE.replace('"K"', '"HKLM\\SOFTWARE\\Quenta\\FlashService"'), first.steps)
        kept = {row[3]: row[4] for row in table(self.file, "Registry")}
        self.assertEqual((kept["RegistryKey"], kept["Bus"]), ("[REGISTRYKEY]", "[BUS]"))

    def test_what_a_configuration_says_is_noted_after_what_the_installer_was_told(self):
        rows = {row[0]: int(row[2]) for row in table(self.file, "InstallExecuteSequence")}
        configure, = (name for name in rows if name.startswith("Corvel") and name.endswith("Configure"))
        self.assertGreater(rows[configure], rows["WriteRegistryValues"])

    def test_no_folder_of_images_is_made_that_the_configuration_does_not_name(self):
        condition, = (row[4] for row in table(self.file, "Component") if row[0] == "Images")
        self.assertTrue(holds(condition, {}))
        self.assertFalse(holds(condition, BY_HAND))
        kept = {**INSTALLED, "KEPTIMAGEFOLDER": "D:\\Images\\"}
        self.assertTrue(holds(condition, kept))
        self.assertEqual(self.run_of(**kept).properties["IMAGEFOLDER"], "D:\\Images\\")
        self.assertEqual(self.run_of(**INSTALLED).properties["IMAGEFOLDER"], "I")

    def test_no_words_of_a_callers_own_reach_what_the_system_runs(self):
        for name, value in (("BUS", 'usb --registry-key "X'), ("STARTTYPE", "auto --restrict"), ("REGISTRYKEY", 'K" --bus "usb'),
                            ("IMAGEFOLDER", 'I" --bus "usb'), ("SERVICEOPTIONS", "--restrict & calc"), ("Privileged", "")):
            with self.subTest(name), self.assertRaises(Refused):
                self.run_of(**{name: value})
        # What a search has found goes to a rollback; a caller may say it, too.
        for name, value in (("FORMEROPTIONS", "--restrict & calc"), ("FORMERSTARTTYPE", "auto --force")):
            with self.subTest(name), self.assertRaises(Refused):
                self.run_of(**{name: value}, SERVICEOPTIONS="none", STARTTYPE="auto")
        for options in ("none", "--restrict", "--restart-when-stuck", "--restart-when-stuck --restrict"):
            self.run_of(SERVICEOPTIONS=options)
        self.run_of(**{**BY_HAND, "FORMERSERVICE": f'#%"{BIN}corvel_service.exe"', "FORMERIDENTITY": "#1"})

    def test_needs_windows_10(self):
        """Whose version the installer does not tell from that of Windows 8.1; the build's number does."""
        condition, = (row[0] for row in table(self.file, "LaunchCondition") if "VersionNT64" in row[0])
        self.assertTrue(holds(condition, {"VersionNT64": "603", "SYSTEMBUILD": "10240"}))
        self.assertTrue(holds(condition, {"VersionNT64": "603", "SYSTEMBUILD": "22631"}))
        self.assertFalse(holds(condition, {"VersionNT64": "603", "SYSTEMBUILD": "9600"}))
        self.assertFalse(holds(condition, {"SYSTEMBUILD": "19045"}))
        self.assertTrue(holds(condition, {"Installed": "1"}))

    def test_old_version_goes_within_the_transaction_when_no_step_waits(self):
        """Windows Installer refuses the whole installation otherwise (its error 2613)."""
        rows = sorted((int(row[2]), row[0]) for row in table(self.file, "InstallExecuteSequence"))
        order = [name for _, name in rows]
        removal = order.index("RemoveExistingProducts")
        self.assertEqual(order[removal - 1], "InstallExecute")
        self.assertLess(order.index("InstallInitialize"), removal)
        self.assertLess(removal, order.index("ProcessComponents"))
        self.assertEqual(len({number for number, _ in rows}), len(rows))

    def test_repair_puts_the_service_back_as_it_is_told(self):
        repair = self.run_of(**INSTALLED, Installed="1", SERVICEOPTIONS="--restart-when-stuck")
        self.assertEqual(repair.steps,
                         [TAKE_AWAY, Run.FILES, CONFIGURE, "install --start auto --restart-when-stuck", "start"])
        self.assertEqual(repair.steps_back, ["uninstall", "install --start auto", "start"])

    def test_removal_takes_what_was_left_and_puts_the_service_back_when_it_fails(self):
        removal = self.run_of(**INSTALLED, Installed="1", REMOVE="ALL")
        self.assertEqual(removal.steps, [TAKE_ALL_AWAY, Run.FILES])
        self.assertEqual(removal.steps_back, ["install --start auto", "start"])
        self.assertEqual(removal.properties["LEFTOVERS"], BIN)

    def test_removal_takes_what_hosts_leave_and_nothing_else(self):
        patterns = [row[2] for row in table(self.file, "RemoveFile") if row[3] == "LEFTOVERS"]
        for left in ("CorvelConfig.ini", "CorvelFlashHistory.txt", "FlashServiceDebugLogger_DLL.log",
                     "FlashCommandLineLogger_DLL_2026-01-01_00-00-00.log", "ZEMO_DownloadDll_1.log"):
            self.assertTrue([pattern for pattern in patterns if fnmatch.fnmatchcase(left, pattern)], left)
        for foreign in ("modem-maker.log", "notes.txt", "Firmwareflashdownload.dll"):
            self.assertFalse([pattern for pattern in patterns if fnmatch.fnmatchcase(foreign, pattern)], foreign)

    def test_nobody_is_asked_to_end_before_it_was_looked_whether_a_modem_is_flashed(self):
        self.assertIn(["MSIRESTARTMANAGERCONTROL", "Disable"], table(self.file, "Property"))

    def test_dialogs_hand_on_what_they_have_found(self):
        """Searches run before the dialogs alone when there are some, in the rights of the user."""
        inside, before = ({row[0]: row for row in table(self.file, name)}
                          for name in ("InstallExecuteSequence", "InstallUISequence"))
        secure = dict(row for row in table(self.file, "Property"))["SecureCustomProperties"].split(";")
        self.assertLessEqual({row[0] for row in table(self.file, "AppSearch")}, set(secure))
        costs = int(inside["CostInitialize"][2])
        early = [row[0] for row in table(self.file, "CustomAction") if int(inside[row[0]][2]) < costs]
        self.assertGreater(len(early), 5)
        for action, _, assigned, *_ in table(self.file, "CustomAction"):
            if action in early:
                self.assertEqual(before[action], inside[action])
                self.assertIn(assigned, secure)


shutil.rmtree(SCRATCH, ignore_errors=True)
unittest.main(argv=sys.argv[:1])
