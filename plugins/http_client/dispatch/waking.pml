/* Who sleeps in the dispatch, and who wakes whom: the protocol of waking.md as a model, which Spin checks in
 * every interleaving. scripts/check-waking does that, and does it again with each of the mistakes that stand
 * here under #ifdef: each of them has to be found.
 *
 * An atomic block is what one thread does under the queue's mutex; a wait in it, which blocks, lets go of
 * the mutex. Signals that are given after the mutex was let go of are steps of their own, as in the code.
 * The process Spurious ends waits that nobody has ended.
 *
 * Asserted: an element is taken once; a worker takes in the order of arrival; what stands behind a barrier is
 * taken after all have reached it; nobody sleeps, unless chosen, while there is something for him (see
 * checkSleepers); at the end everything that was accepted has been taken. That nobody sleeps for ever is Spin's own check for
 * invalid end states. */

#ifndef WORKERS
#define WORKERS 2
#endif
#ifndef PRODUCERS
#define PRODUCERS 2
#endif
#ifndef EACH
#define EACH 2 /* elements in the one batch of a producer */
#endif
#ifndef CAPACITY
#define CAPACITY 2 /* of the queue */
#endif
#ifndef ENOUGH
#define ENOUGH 3 /* elements taken before a producer that waits for space is woken: more than there are, here */
#endif
#ifndef CALLBACKS
#define CALLBACKS 1 /* messages that the host sends from inside a delivery */
#endif
#ifndef SPURIOUS
#define SPURIOUS 1 /* waits that end by themselves */
#endif

#define ROWS (PRODUCERS * EACH + CALLBACKS + 1)
#define ELEMENTS (ROWS * WORKERS)
#define ANY WORKERS       /* for whoever comes first: on the common lane */
#define ROW (WORKERS + 1) /* a barrier: an element on each lane */
#define MESSAGE 255       /* what an element is, unless the number of its barrier */
#define CONTROL WORKERS   /* the thread that shuts down, where it waits at a barrier */

mtype = { Awake, Asleep, Chosen };

/* Under the queue's mutex. */
chan lane[WORKERS] = [ELEMENTS] of { byte, byte }; /* order of arrival, and what it is */
chan common = [ELEMENTS] of { byte, byte };
byte count = 0;
byte arrivals = 0;
mtype state[WORKERS] = Awake;
byte sleepers[WORKERS]; /* a stack of those that are Asleep */
byte asleep = 0;
byte waitingProducers = 0;
byte takenMeanwhile = 0; /* since a producer was woken */
bool terminated = false;

/* Under the barriers' mutex. */
byte remaining[ROWS];
byte rows = 0;
bool abandoned = false;

/* Under the gate's. */
bool closed = false;
byte inside = 0;

/* Whether a thread waits at its condition, and whether it was signalled there. */
bool workerWaits[WORKERS], workerSignal[WORKERS];
bool producerWaits[PRODUCERS], producerSignal[PRODUCERS];
bool barrierWaits[WORKERS + 1], barrierSignal[WORKERS + 1];

/* For what is asserted. */
byte rowOrder[ROWS]; /* the order of a barrier's last element */
byte callbacks = 0;
byte left = 0;  /* producers */
byte ended = 0; /* workers */

hidden byte i, j; /* inside one step only */

inline wait(waits, signal) {
  waits = true;
  signal; /* blocks */
  signal = false;
  waits = false
}

/* For mistakes: lets go of the mutex in the middle of a step. */
chan others = [0] of { bit };
inline letOthersIn() { others ! 0 }

/* A signal reaches whoever waits, and is lost where nobody does. */
inline notify(waits, signal) {
  if
  :: waits -> signal = true
  :: else
  fi
}

inline notifyProducers() {
  d_step { for (i : 0 .. PRODUCERS - 1) { notify(producerWaits[i], producerSignal[i]) } }
}

inline notifyBarriers() {
  d_step { for (i : 0 .. WORKERS) { notify(barrierWaits[i], barrierSignal[i]) } }
}

/* Who sleeps has nothing on its lane; while anybody does, each element of the common lane has its own worker
 * that was chosen. */
inline checkSleepers() {
  d_step {
    j = 0;
    for (i : 0 .. WORKERS - 1) {
      assert(state[i] != Asleep || terminated || len(lane[i]) == 0);
      j = j + (state[i] == Chosen)
    }
    assert(asleep == 0 || terminated || len(common) <= j)
  }
}

/* --- Waking ---------------------------------------------------------------------------------------------- */

/* Takes a sleeper off the stack, wherever it stands. Each thread's own `wake` says whom it is to notify. */
inline choose(worker) {
  d_step {
    i = 0;
    do
    :: sleepers[i] == worker -> break
    :: else -> i++
    od;
    asleep--;
    do
    :: i < asleep -> sleepers[i] = sleepers[i + 1]; i++
    :: else -> break
    od;
    sleepers[asleep] = 0;
    state[worker] = Chosen;
    wake[worker] = true
  }
}

/* A sleeper for each element without affinity: those that fell asleep last. */
inline chooseForCommon(pushed) {
#ifndef WITHOUT_WAKING_FOR_COMMON
  do
  :: pushed > 0 && asleep > 0 ->
     j = sleepers[asleep - 1];
     choose(j);
     pushed--
  :: else -> break
  od;
#endif
  pushed = 0
}

inline notifyChosen() {
  for (k : 0 .. WORKERS - 1) {
    if
    :: wake[k] -> wake[k] = false; notify(workerWaits[k], workerSignal[k])
    :: else
    fi
  }
  k = 0
}

/* --- Pushing --------------------------------------------------------------------------------------------- */

inline append(worker, kind) {
  arrivals++;
  count++;
  lane[worker] ! arrivals, kind;
#ifndef WITHOUT_WAKING_FOR_A_LANE
  if
  :: state[worker] == Asleep -> choose(worker)
  :: else
  fi
#endif
}

inline push(target, pushed) {
  if
  :: target == ANY ->
     arrivals++;
     count++;
     common ! arrivals, MESSAGE;
     pushed++
  :: target < WORKERS -> append(target, MESSAGE)
  :: else ->
     row = rows;
     rows++;
     remaining[row] = WORKERS;
     next = 0;
     do
     :: next < WORKERS ->
        append(next, row);
#ifdef MISTAKE_ROWS_LANE_BY_LANE
        letOthersIn();
#endif
        next++
     :: else -> break
     od;
     next = 0;
     rowOrder[row] = arrivals
  fi
}

inline chooseTarget(target) {
  if
  :: target = ANY
  :: target = 0
  :: target = WORKERS - 1
  :: target = ROW
  fi
}

proctype Producer(byte me) {
  byte k, next, row, target, pushed;
  byte more = EACH;
  bool wake[WORKERS];

  atomic {
    if
    :: closed -> goto out
    :: else -> inside++
    fi
  }
  atomic {
    do
    :: more == 0 || closed -> break
    :: more > 0 && !closed && count < CAPACITY ->
       chooseTarget(target);
       push(target, pushed);
       more--
    :: else ->
       /* Nobody else wakes those who are to make the space: this batch is not closed yet. */
#ifndef WITHOUT_WAKING_BEFORE_A_WAIT
       chooseForCommon(pushed);
       notifyChosen();
       checkSleepers();
#endif
       waitingProducers++;
       wait(producerWaits[me], producerSignal[me]);
       waitingProducers--
    od;
    chooseForCommon(pushed);
    checkSleepers()
  }
  notifyChosen();
  atomic { target = 0; row = 0; inside-- }
out:
  atomic { left++ }
}

/* --- Taking ---------------------------------------------------------------------------------------------- */

inline takeOldest(me, order, kind) {
  if
  :: len(lane[me]) > 0 && len(common) > 0 ->
     lane[me] ? <order, kind>;
     common ? <j, kind>;
     if
     :: order < j -> lane[me] ? order, kind
     :: else -> common ? order, kind
     fi
  :: len(lane[me]) > 0 && len(common) == 0 -> lane[me] ? order, kind
  :: else -> common ? order, kind
  fi;
  count--;
  assert(order > last);
  last = order
}

inline waitForElement(me) {
  do
  :: terminated || len(lane[me]) > 0 || len(common) > 0 -> break
  :: else ->
#ifdef MISTAKE_TEST_BEFORE_THE_LOCK
     letOthersIn();
#endif
     state[me] = Asleep;
     sleepers[asleep] = me;
     asleep++;
#ifndef WITHOUT_WAKING_PRODUCERS_ON_SLEEP
     if
     :: waitingProducers > 0 && count < CAPACITY ->
        takenMeanwhile = 0;
        notifyProducers()
     :: else
     fi;
#endif
     do
     :: state[me] == Asleep -> wait(workerWaits[me], workerSignal[me])
     :: else -> break
     od;
     state[me] = Awake
  od
}

/* `tell`: whether producers are to be woken once the mutex was let go of. This is for throughput, and for fairness
 * while a worker sleeps: no producer would sleep for ever without it, since the worker that empties the queue falls
 * asleep. */
inline countTaken(tell) {
  tell = false;
  if
  :: waitingProducers > 0 && count < CAPACITY ->
     takenMeanwhile++;
     if
     :: takenMeanwhile >= ENOUGH || asleep > 0 -> tell = true
     :: else
     fi
  :: else
  fi;
  if
  :: tell -> takenMeanwhile = 0
  :: else
  fi
}

inline waitAtBarrier(who, number) {
  atomic {
    do
    :: remaining[number] > 0 && !abandoned -> wait(barrierWaits[who], barrierSignal[who])
    :: else -> break
    od
  }
}

/* From inside a delivery: without waiting for space. */
inline callBack() {
  atomic {
    if
    :: callbacks < CALLBACKS && !closed -> callbacks++; inside++; next = 1
    :: next = 0
    fi
  }
  if
  :: next == 1 ->
     atomic {
       chooseTarget(target);
       push(target, pushed);
       chooseForCommon(pushed);
       checkSleepers()
     }
     notifyChosen();
     atomic { next = 0; inside-- }
  :: else
  fi
}

proctype Worker(byte me) {
  byte k, next, row, target, pushed, order, kind, last;
  bool wake[WORKERS];
  bool tell;

  do
  :: atomic {
       waitForElement(me);
       if
       :: terminated -> break
       :: else
       fi;
       takeOldest(me, order, kind);
       countTaken(tell);
       checkSleepers()
     }
     if
     :: tell -> atomic { notifyProducers() }
     :: else
     fi;
     if
     :: kind == MESSAGE ->
        atomic {
          for (i : 0 .. rows - 1) { assert(rowOrder[i] > order || remaining[i] == 0) }
        }
        callBack()
     :: else ->
        atomic {
          remaining[kind]--;
#ifndef WITHOUT_WAKING_AT_A_BARRIER
          if
          :: remaining[kind] == 0 -> notifyBarriers()
          :: else
          fi
#endif
        }
        waitAtBarrier(me, kind)
     fi;
     atomic { order = 0; kind = 0; row = 0; target = 0; tell = false }
  od;
  atomic { ended++ }
}

/* --- The end --------------------------------------------------------------------------------------------- */

inline abandonBarriers() {
  atomic {
    abandoned = true;
#ifndef WITHOUT_WAKING_AT_ABANDONED_BARRIERS
    notifyBarriers()
#endif
  }
}

/* shutdown, at any moment; or destroy without it, which drops what is queued. An end must not be what wakes
 * somebody who would have slept for ever: it may also come only after the producers have left. */
proctype Control() {
  byte k, next, row, pushed;
  bool wake[WORKERS];
  bool drains;

  if
  :: skip
  :: skip -> left == PRODUCERS
  fi;
  atomic { closed = true }
  atomic { notifyProducers() } /* for promptness: workers wake them too */
  inside == 0;
  if
  :: drains = true
  :: drains = false
  fi;
  if
  :: drains ->
     atomic { push(ROW, pushed); checkSleepers() }
     notifyChosen();
     waitAtBarrier(CONTROL, row);
     assert(len(common) == 0)
  :: else
  fi;
#ifdef MISTAKE_ABANDONING_BARRIERS_FIRST
  abandonBarriers();
#endif
  atomic {
    terminated = true;
#ifndef WITHOUT_WAKING_AT_TERMINATION
    do
    :: asleep > 0 -> j = sleepers[asleep - 1]; choose(j)
    :: else -> break
    od;
#endif
    notifyChosen()
  }
  abandonBarriers();
  ended == WORKERS;
  assert(!drains || count == 0)
}

/* Ends waits of workers that nobody has ended. */
proctype Spurious() {
  byte more = SPURIOUS;
end:
  do
  :: more > 0 && workerWaits[0] -> more--; workerSignal[0] = true
  :: more > 0 && workerWaits[WORKERS - 1] -> more--; workerSignal[WORKERS - 1] = true
  :: more > 0 && producerWaits[0] -> more--; producerSignal[0] = true
  :: more > 0 && barrierWaits[0] -> more--; barrierSignal[0] = true
  od
}

proctype Others() {
end:
  do
  :: others ? _
  od
}

init {
  byte n;
  atomic {
    for (n : 0 .. WORKERS - 1) { run Worker(n) }
    for (n : 0 .. PRODUCERS - 1) { run Producer(n) }
    run Control();
    run Spurious();
    run Others()
  }
}
