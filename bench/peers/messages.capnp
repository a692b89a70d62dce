# The measured messages for Cap'n Proto.
@0xb3c1a5d27e90f846;

using Cxx = import "/capnp/c++.capnp";
$Cxx.namespace("capn");

struct Param {
  flag @0 :Int32;
  maxlen @1 :Int32;
  dataValue @2 :Data;
}

struct Call {
  libraryPath @0 :Text;
  functionName @1 :Text;
  property @2 :Int32;
  returnFlag @3 :Int32;
  param @4 :List(Param);
}

struct Column {
  name @0 :Text;
  dataType @1 :Int32;
  precision @2 :Int32;
  scale @3 :Int32;
  etcMeta @4 :Int32;
  maxSize @5 :Int32;
}

struct Prefetch {
  ppid @0 :UInt64;
  affectedCnt @1 :Int32;
  csrId @2 :Int32;
  colCnt @3 :Int32;
  hiddenColCnt @4 :Int32;
  colMeta @5 :List(Column);
  rowCnt @6 :Int32;
  isFetchCompleted @7 :Int32;
  rowChunkSize @8 :Int32;
}
