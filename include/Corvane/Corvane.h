// Corvane: the whole public API in one include.
#pragma once

#include <Fundel/Assert.h>
#include <Fundel/Function.h>
#include <Fundel/Log.h>

#include <Corvane/AddrRecord.h>
#include <Corvane/Config.h>
#include <Corvane/DefaultStorDev.h>
#include <Corvane/EventMask.h>
#include <Corvane/Export.h>
#include <Corvane/IoVec.h>
#include <Corvane/Level2Buffer.h>
#include <Corvane/MediaBuffer.h>
#include <Corvane/MediaPacket.h>
#include <Corvane/MediaStreamReceiver.h>
#include <Corvane/MediaStreamSender.h>
#include <Corvane/MirtAcceptor.h>
#include <Corvane/MirtStream.h>
#include <Corvane/NetHandler.h>
#include <Corvane/NetCheckManager.h>
#include <Corvane/NetThread.h>
#include <Corvane/NFile.h>
#include <Corvane/NFileInfo.h>
#include <Corvane/NStorDev.h>
#include <Corvane/NTimer.h>
#include <Corvane/NTimerEvent.h>
#include <Corvane/QuicAcceptor.h>
#include <Corvane/QuicStream.h>
#include <Corvane/R3.h>
#include <Corvane/SimulatorStream.h>
#include <Corvane/Sock.h>
#include <Corvane/SockAcceptor.h>
#include <Corvane/SockAddr.h>
#include <Corvane/SockAddrIPv4.h>
#include <Corvane/SockAddrIPv6.h>
#include <Corvane/SockAddrStorage.h>
#include <Corvane/SockDgram.h>
#include <Corvane/SockStream.h>
#include <Corvane/StreamSender.h>
#include <Corvane/TsMemory.h>

#if CORVANE_HAVE_TLS
#include <Corvane/SslAcceptor.h>
#include <Corvane/SslAsyncAcceptor.h>
#include <Corvane/SslAsyncStream.h>
#include <Corvane/SslStream.h>
#include <Corvane/SslX509.h>
#endif
