import os,sys,time
i=int(sys.argv[1]); d='/tmp/rv-rev/m/'
try:
  while True:
    for v in ('ab','aB','Ab','AB'):
        try: os.stat(d+v+str(i%3))
        except FileNotFoundError: pass
    try: os.close(os.open(d+('ab','AB')[i%2]+str(i%3),os.O_CREAT|os.O_RDWR))
    except FileNotFoundError: pass
    try: os.unlink(d+'ab'+str(i%3))
    except FileNotFoundError: pass
except OSError as e: pass
