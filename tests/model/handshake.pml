/*
 * The handshake by the registry, and the life of a download attempt: every order of events is tried. Each step bears
 * the name of the function that it stands for.
 *
 * What is left out: time (a wait may end by its limit at any moment), the texts of records, the images. A call of
 * the flashing library takes effect when it begins and returns whenever it likes, be it never.
 *
 * Defining one of these puts a fault into the procedure; the check must then find an error:
 *   LOOK_BEFORE_ARM   the flag is looked at before the notification is armed
 *   NO_SECOND_LOOK    a signal is taken for a raised flag
 *   FLAG_FIRST        a job's end lowers the flag before it writes the result
 *   NO_PRESENCE       success is told without having seen the modem
 *   NOT_ABANDONED     an attempt that overran its limit is not told so
 *   CHECK_APART       whether an attempt is abandoned is asked apart from the writing
 *   NO_CLAIM          a late close does not ask who has the channel
 */

/* How often the controller asks, how often the process dies, "Retry_Times", and the most attempts of one process,
   where the run is cut. */
#ifndef REQUESTS
#define REQUESTS 2
#define KILLS    0
#define WORKERS  3
#endif
#define RETRIES  1
#define NOBODY   255

mtype = { Idle, Flashing, Retrying, Failed, Succeeded };    /* "Flash_Result" */
mtype = { Normal, InFlashMode, Away };                      /* the modem */

/* --- The registry: it outlives the process --------------------------------------------------------------- */
bit ready = 0;             /* "Fls_Ready" */
mtype result = Idle;       /* "Flash_Result" */

bit asked = 0;             /* ghost: raised since it was lowered last */

/* --- The system's side of a notification: one-shot, and an event that releases one waiter ----------------- */
bit armed = 0;
bit signalled = 0;

inline KeyChanges() {
  if
  :: armed -> armed = 0; signalled = 1
  :: else
  fi
}

/* --- The process ------------------------------------------------------------------------------------------ */
bit alive = 0;
byte life = 0;             /* which process: threads of an earlier one take no step */

byte present = NOBODY;     /* Attempt::SetPresent */
byte threads = 0;          /* of the process, and of one that is just dying */
byte count = 0;            /* attempts so far */
byte each;
bit abandoned[WORKERS];
bit ended[WORKERS];
bit flashed = 0;           /* ToolKit::mFlashResult is FirmwareUpdated */

byte channelUser = NOBODY; /* flash_channel: who took it last */
bit beingClosed = 0;
byte opened = NOBODY;      /* ghost: whose channel the library has open */

inline ClearAttempts() {
  count = 0;
  for (each : 0 .. WORKERS - 1) {
    abandoned[each] = 0;
    ended[each] = 0
  };
  each = 0
}

/* --- The modem: it outlives the process, too --------------------------------------------------------------- */
mtype modem = Normal;

/* One attempt: ToolKit::DownloadFirmwareImplementation on a thread of its own. */
proctype Worker(byte me; byte mine) { {
  /* FirmwareBoot: into flash mode */
  if
  :: atomic { !abandoned[me] -> modem = InFlashMode }
  :: abandoned[me] -> goto End
  fi;

  /* FirmwareBoot::TakeChannel, and the opening behind it */
  do
  :: atomic {
       !abandoned[me] && !beingClosed ->
       channelUser = me;
       opened = me;
       break
     }
  :: abandoned[me] -> goto End
  od;

  /* The library writes the items, resets the modem, or fails on the way. It may hang in each of them: nothing here
     makes it take its next step. */
  if
  :: atomic { !abandoned[me] -> modem = Away }
  :: skip -> goto Close
  :: abandoned[me] -> goto Close
  fi;

  /* CFirmwareDownloader::CleanupAfterDownload */
Close:
  if
  :: atomic { !abandoned[me] -> opened = NOBODY }
  :: abandoned[me] ->
#ifdef NO_CLAIM
     skip;
     opened = NOBODY
#else
     /* flash_channel::LateClose */
     if
     :: atomic { channelUser == me -> beingClosed = 1 };
        /* The close resets the baseband: nobody newer may have a channel. */
        assert(opened == me || opened == NOBODY);
        opened = NOBODY;
        atomic { beingClosed = 0; channelUser = NOBODY }
     :: channelUser != me
     fi
#endif
  fi;
#ifdef NO_CLAIM
  assert(channelUser == me || opened == NOBODY || !abandoned[me]);
#endif

  /* AttemptDownload: Attempt::UnlessAbandoned */
#ifdef CHECK_APART
  if
  :: !abandoned[me] -> skip
  :: abandoned[me] -> goto End
  fi;
  assert(!abandoned[me]);
  flashed = (modem != InFlashMode)
#else
  atomic {
    if
    :: !abandoned[me] ->
       assert(present == me);
       flashed = (modem != InFlashMode)
    :: else
    fi
  }
#endif

End:
  ended[me] = 1
} unless { !alive || mine != life };
  threads-- }

/* The modem comes back by itself, or has to be reset. */
active proctype Modem() {
  do
  :: atomic { modem == Away -> modem = Normal }
  od
}

proctype Host(byte mine) { {
  byte failures;
  bit raised;              /* as the last look at the flag found it */

  /* FlashJob::WriteInitialValues */
  atomic { result = Idle; KeyChanges() }

Pass:
  /* ToolKit::MonitorFlashReadyFlag */
  do
  ::
#ifdef LOOK_BEFORE_ARM
     raised = ready;
     atomic { armed = 1; signalled = 0 };
#else
     atomic { armed = 1; signalled = 0 };
     raised = ready;
#endif
     if
     :: raised
     :: else -> atomic { signalled -> signalled = 0 }   /* waits, without a limit */
     fi;
     armed = 0;
#ifdef NO_SECOND_LOOK
     break
#else
     if
     :: ready -> raised = 1; break
     :: else
     fi
#endif
  od;

  /* FlashJob::FindImages */
  /* No job without a request: somebody raised the flag since it was lowered, and it was seen raised. */
  assert(asked && raised);
  atomic { result = Idle; KeyChanges() };
  if
  :: skip                                                /* there are images */
  :: atomic { result = Failed; KeyChanges() }; goto Lower
  fi;

  failures = 0;
Attempt:
  /* FlashJob::DownloadOnce */
  atomic {
    if
    :: count < WORKERS ->
       present = count;
       count++;
       flashed = 0;
       result = Flashing;
       KeyChanges();
       threads++;
       run Worker(present, life)
    :: else -> goto Enough
    fi
  };
  if
  :: ended[present]
  :: skip                                                /* its time is over */
  fi;
  if
  :: atomic { ended[present] && flashed -> goto Rearrival }
  :: atomic { !(ended[present] && flashed) -> skip }
  fi;
Again:
  failures++;
  if
  :: failures > RETRIES -> goto GaveUp
  :: else
  fi;
  atomic { result = Retrying; KeyChanges() };
  /* CFirmwareDownloader::Unload */
#ifndef NOT_ABANDONED
  abandoned[present] = 1;
#endif
  goto Attempt;

Rearrival:
  /* FlashJob::AwaitRearrival */
  if
#ifdef NO_PRESENCE
  :: skip -> goto Success
#endif
  :: modem == Normal -> goto Success
  :: skip -> goto Again
  fi;

Success:
  /* FlashJob::End */
#ifdef FLAG_FIRST
  atomic { ready = 0; asked = 0; KeyChanges() };
  assert(result != Flashing);
#endif
  /* Every attempt has had it in flash mode, and nobody who may still do something takes it away again. */
  atomic { assert(modem == Normal); result = Succeeded; KeyChanges() };
  goto Lower;
GaveUp:
#ifdef FLAG_FIRST
  atomic { ready = 0; asked = 0; KeyChanges() };
  assert(result != Flashing);
#endif
  atomic { result = Failed; KeyChanges() };
Lower:
  /* Whoever sees the flag lowered finds the result. */
  assert(result == Failed || result == Succeeded);
  atomic { ready = 0; asked = 0; KeyChanges() };
  if
  :: present != NOBODY -> abandoned[present] = 1
  :: else
  fi;
  goto Pass;

Enough:
  /* More attempts than the model has room for: this run ends here, with nobody to wait for. */
  alive = 0
} unless { !alive || mine != life };
  threads-- }

/* Raises the flag, waits for it to be lowered, and sometimes takes it back before anybody has taken it. */
active proctype Controller() {
  byte requests = 0;
  do
  :: requests < REQUESTS ->
     atomic { ready = 1; asked = 1; KeyChanges() };
     requests++;
     if
     :: skip -> !ready
     :: skip ->
        if
        :: !ready
        :: atomic { ready && result != Flashing && result != Retrying -> ready = 0; KeyChanges() }
        fi
     fi
  :: else -> break
  od
}

/* The service manager: starts the host, and starts it anew when it died. */
active proctype ServiceManager() {
  byte kills = 0;
  atomic { alive = 1; life++; threads++; run Host(life) };
  do
  :: atomic {
       kills < KILLS && alive ->
       kills++;
       life++
     };
     /* Nothing of the process is left but the registry and the modem. */
     atomic {
       threads == 0 ->
       armed = 0;
       signalled = 0;
       present = NOBODY;
       channelUser = NOBODY;
       beingClosed = 0;
       opened = NOBODY;
       flashed = 0;
       ClearAttempts();
       threads++;
       run Host(life)
     }
  :: kills >= KILLS -> break
  :: break
  od
}

/* A request that stands is dealt with, as long as there is a host. */
ltl dealtWith { [] (ready -> <> (!ready || !alive)) }
