// The smallest correct controlling program: asks the flash service for one flash and waits for its end.
//
//   controller KEY [SECONDS]     for example: controller HKLM\SOFTWARE\Quenta\FlashService 900
//
// The images lie in the service's folder already. Exit status: 0 flashed, 1 failed, 2 wrong usage,
// 3 no end (no service took the request, it fell silent, the time limit passed, or Ctrl+C), 4 the registry refused.
// Built by any compiler of C# 5 or later: csc controller.cs key_watch.cs
// Compiled and run with Mono, on a stand-in of the registry; not yet on Windows.
using System;
using System.Text.RegularExpressions;
using Microsoft.Win32;

public static class Controller {
    // A living service takes a request at once; 153000 is what it writes itself, in case somebody removed it.
    const long LongestToTakeMs = 10000, UsualTimeOutMs = 153000;

    public static int Main(string[] words) {
        Match place = Regex.Match(words.Length > 0 ? words[0] : "", @"^(HKLM|HKCU|HKU)\\(.+)\z");
        Match limit = Regex.Match(words.Length > 1 ? words[1] : "900", @"^[0-9]{1,7}\z");
        long seconds = limit.Success ? long.Parse(limit.Value) : 0;
        if (!place.Success || words.Length > 2 || seconds < 1 || seconds > 1000000) {
            Console.Error.WriteLine("usage: controller HKLM\\KEY [SECONDS]\nSECONDS: 1 to 1000000");
            return 2;
        }
        string root = place.Groups[1].Value;
        RegistryHive hive = root == "HKLM" ? RegistryHive.LocalMachine : root == "HKCU" ? RegistryHive.CurrentUser : RegistryHive.Users;
        try {
            // The 64-bit view, where the service looks, also in a process of 32 bits.
            using (var opened = RegistryKey.OpenBaseKey(hive, RegistryView.Registry64))
            using (var key = opened.CreateSubKey(place.Groups[2].Value))
            using (var watch = new KeyWatch(key)) return Flash(key, watch, seconds * 1000);
        } catch (Exception error) {
            Console.Error.WriteLine("The registry refused: run as an administrator. " + error.Message);
            return 4;
        }
    }

    static long Read(RegistryKey key, string name) { return (uint)(key.GetValue(name) as int? ?? 0); }

    static void TakeBack(RegistryKey key) {
        if (Read(key, "Fls_Ready") == 1) key.SetValue("Fls_Ready", 0, RegistryValueKind.DWord);
    }

    static int Flash(RegistryKey key, KeyWatch watch, long limitMs) {
        long before = Read(key, "Flash_Result");
        bool taken = false, changed = false;
        Console.CancelKeyPress += delegate {
            if (!taken) TakeBack(key);
            Console.Error.WriteLine("Interrupted; a flash that has begun goes on.");
            Environment.Exit(3);
        };
        key.SetValue("Fls_Ready", 1, RegistryValueKind.DWord);
        for (long lastChange = KeyWatch.AwakeMs(), limitEnds = lastChange + limitMs;;) {
            watch.Arm();  // first, then look, then wait: a change between the look and the wait ends the wait
            long ready = Read(key, "Fls_Ready"), result = Read(key, "Flash_Result"), timeOut = Read(key, "Time_Out");
            changed |= result != before;
            Console.WriteLine("Flash_Result {0}, {1} %", result, Read(key, "Flash_Progress"));
            if (ready != 1) return Tell(changed ? result : -1);  // a result from before the request says nothing of it
            long silenceEnds = lastChange + (!taken ? LongestToTakeMs : timeOut > 0 ? timeOut : UsualTimeOutMs);
            if (watch.Wait(Math.Min(silenceEnds, limitEnds) - KeyWatch.AwakeMs())) {
                taken = true;  // only a change behind the request tells that somebody took it
                lastChange = KeyWatch.AwakeMs();
                continue;
            }
            bool silent = silenceEnds <= limitEnds, flashing = Read(key, "Flash_Result") == 1 || Read(key, "Flash_Result") == 2;
            // Nobody serves the request: taken back, so that no later service flashes unasked. A flash that has
            // begun is left: if its service died, the next one recovers the modem because the request stands.
            if (!taken || silent && !flashing) TakeBack(key);
            Console.Error.WriteLine(!taken ? "Nobody took the request: is the service running?"
                                    : silent ? "The service fell silent: it has died." : "The time limit passed; the flash goes on.");
            return 3;
        }
    }

    static int Tell(long result) {
        Console.WriteLine(result == 4 ? "Flash_Result 4: flashed" : result == 3 ? "Flash_Result 3: failed: the service's log says why"
                                                                 : "not flashed: the request was taken back");
        return result == 4 ? 0 : 1;
    }
}
