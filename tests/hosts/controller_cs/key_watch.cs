// Stands in for the watch of a registry key where there is no Windows: a change is the next step of a service
// that the environment describes, such as PLAYED_SERVICE="Flash_Result=1 Flash_Result=4 Fls_Ready=0". A step
// "Flash_Result=1@5000" comes 5 s late, "hangs" never. Time is the stand-in's own and passes in waits alone.
using System;
using System.Collections.Generic;
using System.Threading;
using Microsoft.Win32;

public sealed class KeyWatch : IDisposable {
    static long now = 1000000;
    readonly RegistryKey key;
    readonly Queue<string> steps = new Queue<string>(Words("PLAYED_SERVICE"));
    readonly long begin = now;
    long lastChange = now;
    bool armed;

    public KeyWatch(RegistryKey key) {
        this.key = key;
        foreach (string left in Words("LEFT_BEHIND")) Write(left);
    }

    public void Dispose() {
        Console.WriteLine("Fls_Ready is left at {0}, {1} ms after the last change, {2} ms after the first look", key.GetValue("Fls_Ready"),
                          now - lastChange, now - begin);
    }
    public void Arm() { armed = true; }
    public static long AwakeMs() { return now; }

    public bool Wait(long milliseconds) {
        if (!armed) throw new InvalidOperationException("waits without being armed");
        armed = false;
        if ((int)key.GetValue("Fls_Ready") != 1) throw new InvalidOperationException("waits without a request");
        if (steps.Count != 0 && steps.Peek() == "hangs") Thread.Sleep(Timeout.Infinite);
        long later = steps.Count == 0 ? long.MaxValue : DelayOf(steps.Peek());
        if (later > milliseconds) {
            now += Math.Max(0, milliseconds);
            return false;
        }
        now += later;
        lastChange = now;
        Write(steps.Dequeue());
        return true;
    }

    static string[] Words(string variable) {
        return (Environment.GetEnvironmentVariable(variable) ?? "").Split(new[] {' '}, StringSplitOptions.RemoveEmptyEntries);
    }

    static long DelayOf(string step) { return step.Contains("@") ? long.Parse(step.Split('@')[1]) : 0; }

    void Write(string step) {
        string[] parts = step.Split('@')[0].Split('=');
        key.SetValue(parts[0], int.Parse(parts[1]), RegistryValueKind.DWord);
    }
}
