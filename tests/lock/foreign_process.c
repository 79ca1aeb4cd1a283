/*
 * A process that shares the named locks without their library: the protocol straight
 * with system calls. Commands come on standard input, one a line, "VERB [NAME]"; each
 * is answered by one line on standard output:
 *
 *   attach NAME   attaches to the lock, which the other commands are about
 *   detach        detaches; the last one removes set and key file
 *   tryread, trywrite, read, write, unread, unwrite
 *   status        what the set of the lock has, whoever is attached
 *   clean NAME    removes set and key file of a lock
 *   hold, release the folder of the key files, as an advisory lock
 *   crash         ends by SIGKILL, without an answer
 *
 * The answer is "ok", or "no"; that of status is "none", or the values of the set. A
 * handler of SIGUSR1 does nothing, so that the signal ends a wait.
 */

#define _GNU_SOURCE

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#define FOLDER "/Library/Vornix/oxa/scratch/"

enum { kUndo = 4096, kUndoWithoutWaiting = 6144, kProject = 3737 };

union argument {
  int value;
  struct semid_ds* status;
  unsigned short* values;
};

static char keyFile[4096];
static int set = -1;
static int folder = -1;

static void ignore(int signal) { (void)signal; }

static int setKeyFile(char const* name) {
  int const length = snprintf(keyFile, sizeof keyFile, FOLDER "%s", name);
  return length > 0 && (size_t)length < sizeof keyFile;
}

static int operate(struct sembuf* operations, size_t count) {
  return semop(set, operations, count) == 0;
}

static int attach(char const* name) {
  struct stat status;
  if (!setKeyFile(name)) return 0;
  if (stat(keyFile, &status) != 0) {
    int const file = open(keyFile, O_RDWR | O_CREAT, 0600);
    if (file < 0) return 0;
    close(file);
  }
  key_t const key = ftok(keyFile, kProject);
  if (key == -1) return 0;
  set = semget(key, 3, 1920);
  if (set == -1 && errno == EEXIST) {
    struct semid_ds found;
    set = semget(key, 3, 896);
    if (set == -1) return 0;
    union argument argument = {.status = &found};
    if (semctl(set, 0, IPC_STAT, argument) != 0) memset(&found, 0xff, sizeof found);
    if (found.sem_perm.uid != 0 || found.sem_perm.cuid != 0 || (found.sem_perm.mode & 0600) == 0) {
      if (semctl(set, 0, IPC_RMID) != -1) set = semget(key, 3, 1920);
    }
  }
  struct sembuf operations[] = {{2, +1, kUndo}};
  return set != -1 && operate(operations, 1);
}

static int detach(void) {
  struct sembuf operations[] = {{2, -1, kUndo}};
  if (!operate(operations, 1)) return 0;
  if (semctl(set, 2, GETVAL) == 0 && semctl(set, 0, IPC_RMID) != -1) unlink(keyFile);
  set = -1;
  return 1;
}

static int readLock(short flags) {
  struct sembuf operations[] = {{0, 0, flags}, {1, +1, flags}};
  return operate(operations, 2);
}

static int writeLock(short flags) {
  struct sembuf operations[] = {{0, 0, flags}, {1, 0, flags}, {0, +1, flags}, {1, +1, flags}};
  return operate(operations, 4);
}

static int readUnlock(void) {
  struct sembuf operations[] = {{1, -1, kUndo}};
  return operate(operations, 1);
}

static int writeUnlock(void) {
  struct sembuf operations[] = {{0, -1, kUndo}, {1, -1, kUndo}};
  return operate(operations, 2);
}

static int clean(char const* name) {
  if (!setKeyFile(name)) return 0;
  key_t const key = ftok(keyFile, kProject);
  if (key == -1) return 0;
  int const found = semget(key, 3, 384);
  return found != -1 && semctl(found, 0, IPC_RMID) != -1 && unlink(keyFile) == 0;
}

static int holdFolder(void) {
  folder = open(FOLDER, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  return folder >= 0 && flock(folder, LOCK_EX) == 0;
}

static int releaseFolder(void) {
  int const released = close(folder) == 0;
  folder = -1;
  return released;
}

static void tellStatus(void) {
  int values[3];
  key_t const key = ftok(keyFile, kProject);
  int const found = key == -1 ? -1 : semget(key, 3, 0);
  for (int i = 0; i < 3; ++i) {
    values[i] = semctl(found, i, GETVAL);
    if (values[i] == -1) {
      puts("none");
      return;
    }
  }
  printf("writer %d users %d references %d\n", values[0], values[1], values[2]);
}

static int obey(char const* verb, char const* name) {
  if (strcmp(verb, "attach") == 0) return attach(name);
  if (strcmp(verb, "detach") == 0) return detach();
  if (strcmp(verb, "tryread") == 0) return readLock(kUndoWithoutWaiting);
  if (strcmp(verb, "trywrite") == 0) return writeLock(kUndoWithoutWaiting);
  if (strcmp(verb, "read") == 0) return readLock(kUndo);
  if (strcmp(verb, "write") == 0) return writeLock(kUndo);
  if (strcmp(verb, "unread") == 0) return readUnlock();
  if (strcmp(verb, "unwrite") == 0) return writeUnlock();
  if (strcmp(verb, "clean") == 0) return clean(name);
  if (strcmp(verb, "hold") == 0) return holdFolder();
  if (strcmp(verb, "release") == 0) return releaseFolder();
  if (strcmp(verb, "crash") == 0) raise(SIGKILL);
  fprintf(stderr, "unknown command: %s\n", verb);
  exit(EXIT_FAILURE);
}

int main(void) {
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = ignore;
  sigaction(SIGUSR1, &action, NULL);
  setvbuf(stdout, NULL, _IOLBF, 0);

  char line[4096];
  while (fgets(line, sizeof line, stdin) != NULL) {
    line[strcspn(line, "\n")] = '\0';
    char* name = strchr(line, ' ');
    if (name != NULL) *name++ = '\0';
    if (strcmp(line, "status") == 0) {
      tellStatus();
    } else {
      puts(obey(line, name == NULL ? "" : name) ? "ok" : "no");
    }
  }
  return 0;
}
