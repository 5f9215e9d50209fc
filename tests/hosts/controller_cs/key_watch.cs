// Stands in for the watch of a registry key where there is no Windows: a change is the next step of a service
// that the environment describes, such as PLAYED_SERVICE="Flash_Result=1 Flash_Result=4 Fls_Ready=0".
using System;
using System.Collections.Generic;
using System.Threading;
using Microsoft.Win32;

public sealed class KeyWatch : IDisposable {
    readonly RegistryKey key;
    readonly Queue<string> steps = new Queue<string>(Words("PLAYED_SERVICE"));
    bool armed;

    public KeyWatch(RegistryKey key) {
        this.key = key;
        foreach (string left in Words("LEFT_BEHIND")) Write(left);
    }

    public void Dispose() { Console.WriteLine("Fls_Ready is left at {0}", key.GetValue("Fls_Ready")); }
    public void Arm() { armed = true; }

    public bool Wait(long milliseconds) {
        if (!armed) throw new InvalidOperationException("waits without being armed");
        armed = false;
        if ((int)key.GetValue("Fls_Ready") != 1) throw new InvalidOperationException("waits without a request");
        if (steps.Count == 0) {
            Thread.Sleep((int)Math.Max(0, milliseconds));
            return false;
        }
        Write(steps.Dequeue());
        return true;
    }

    static string[] Words(string variable) {
        return (Environment.GetEnvironmentVariable(variable) ?? "").Split(new[] {' '}, StringSplitOptions.RemoveEmptyEntries);
    }

    void Write(string assignment) {
        string[] parts = assignment.Split('=');
        key.SetValue(parts[0], int.Parse(parts[1]), RegistryValueKind.DWord);
    }
}
