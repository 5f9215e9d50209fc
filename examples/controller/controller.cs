// The smallest correct controlling program: asks the flash service for one flash and waits for its end.
//
//   controller KEY [SECONDS]     for example: controller HKLM\SOFTWARE\Quenta\FlashService 900
//
// The images lie in the service's folder already. Exit status: 0 flashed, 1 failed, 2 wrong usage,
// 3 no end (no service took the request, it fell silent, the time limit passed, or Ctrl+C), 4 the registry refused.
// Built by any compiler of C# 5 or later: csc controller.cs key_watch.cs
using System;
using System.Diagnostics;
using Microsoft.Win32;

public static class Controller {
    // A living service takes a request at once; 153000 is what it writes itself, in case somebody removed it.
    const int LongestToTakeMs = 10000, UsualTimeOutMs = 153000;

    public static int Main(string[] words) {
        int separator = words.Length > 0 ? words[0].IndexOf('\\') : -1, seconds = 900;
        string root = separator > 0 ? words[0].Substring(0, separator) : "";
        bool known = (root == "HKLM" || root == "HKCU") && separator + 1 < words[0].Length;
        if (!known || words.Length > 2 || words.Length == 2 && !IsSeconds(words[1], out seconds)) {
            Console.Error.WriteLine("usage: controller HKLM\\KEY [SECONDS]\nSECONDS: 1 to 1000000");
            return 2;
        }
        try {
            // The 64-bit view, where the service looks, also in a process of 32 bits.
            using (var hive = RegistryKey.OpenBaseKey(root == "HKLM" ? RegistryHive.LocalMachine : RegistryHive.CurrentUser, RegistryView.Registry64))
            using (var key = hive.CreateSubKey(words[0].Substring(separator + 1)))
            using (var watch = new KeyWatch(key)) return Flash(key, watch, seconds * 1000L);
        } catch (Exception error) {
            Console.Error.WriteLine("The registry refused: run as an administrator. " + error.Message);
            return 4;
        }
    }

    static bool IsSeconds(string text, out int seconds) {
        return int.TryParse(text, System.Globalization.NumberStyles.None, null, out seconds) && seconds >= 1 && seconds <= 1000000;
    }

    static int Read(RegistryKey key, string name) { return key.GetValue(name) as int? ?? 0; }

    static int Flash(RegistryKey key, KeyWatch watch, long limitMs) {
        int before = Read(key, "Flash_Result");
        bool taken = false, changed = false;
        Console.CancelKeyPress += delegate {
            if (!taken) key.SetValue("Fls_Ready", 0, RegistryValueKind.DWord);
            Console.Error.WriteLine("Interrupted; a flash that has begun goes on.");
            Environment.Exit(3);
        };
        key.SetValue("Fls_Ready", 1, RegistryValueKind.DWord);
        var clock = Stopwatch.StartNew();
        for (long lastChange = 0;;) {
            watch.Arm();  // first, then look, then wait: a change between the look and the wait ends the wait
            int ready = Read(key, "Fls_Ready"), result = Read(key, "Flash_Result"), timeOut = Read(key, "Time_Out");
            changed |= result != before;
            if (ready != 1) return Tell(changed ? result : -1);  // a result from before the request says nothing of it
            Console.WriteLine("Flash_Result {0}, {1} %", result, Read(key, "Flash_Progress"));
            long silenceEnds = lastChange + (!taken ? LongestToTakeMs : timeOut > 0 ? timeOut : UsualTimeOutMs);
            if (watch.Wait(Math.Min(silenceEnds, limitMs) - clock.ElapsedMilliseconds)) {
                taken = true;  // only a change behind the request tells that somebody took it
                lastChange = clock.ElapsedMilliseconds;
                continue;
            }
            bool silent = silenceEnds <= limitMs, flashing = Read(key, "Flash_Result") == 1 || Read(key, "Flash_Result") == 2;
            // Nobody serves the request: taken back, so that no later service flashes unasked. A flash that has
            // begun is left: if its service died, the next one recovers the modem because the request stands.
            if (!taken || silent && !flashing) key.SetValue("Fls_Ready", 0, RegistryValueKind.DWord);
            Console.Error.WriteLine(!taken ? "Nobody took the request: is the service running?"
                                    : silent ? "The service fell silent: it has died." : "The time limit passed; the flash goes on.");
            return 3;
        }
    }

    static int Tell(int result) {
        Console.WriteLine(result == 4 ? "Flash_Result 4: flashed" : result == 3 ? "Flash_Result 3: failed: the service's log says why"
                                                                 : "not flashed: the request was taken back");
        return result == 4 ? 0 : 1;
    }
}
